#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/DescriptorChannel.h"
#include "platform/Process.h"

namespace kvx::rvd {

/// What the daemon that is replaced (the old one) and its successor (the new one) say to one
/// another over a channel, one message each:
///
///     new: hello, its state version, its version      it has started
///     old: state, with a file in memory, and so many descriptors are to come; the descriptors
///     new: ready                                      it has restored all, and touched nothing
///     old: go                                         it ends at once, and touches nothing more
///
/// Either says "no" with a reason instead, which ends it: the old one goes on. It ends a successor
/// before it closes the channel, so that the end of the channel tells a ready one to begin.
class Successor {
  public:
    /// Starts `program`, whose arguments make it take over at descriptor `Program::kInherited`.
    /// Returns an empty text, or why that is impossible.
    [[nodiscard]] std::string start(platform::Program program);
    ~Successor();

    [[nodiscard]] bool hasChannel() const { return channel_.has_value(); }
    /// Readable when it has said something, or has ended.
    [[nodiscard]] int descriptor() const { return channel_->descriptor(); }
    /// What it says first: an empty text when it can take over, else why not. Its version is
    /// `version` then.
    [[nodiscard]] std::string hear();
    [[nodiscard]] const std::string& version() const { return version_; }
    [[nodiscard]] unsigned long pid() const { return pid_; }

    /// Hands everything over, in the order of `descriptors`. An empty text when it is ready: after
    /// `go` this process must not touch them any more. Else why it cannot.
    [[nodiscard]] std::string give(int state, std::span<const int> descriptors);
    /// False when it has ended meanwhile.
    [[nodiscard]] bool go();

  private:
    std::optional<platform::DescriptorChannel> channel_;
    unsigned long pid_ = 0;  // 0: none, or it goes on
    std::string version_;
};

/// The other end: the daemon that takes over.
class Predecessor {
  public:
    /// `descriptor` is that of the channel, which it owns from now on.
    explicit Predecessor(int descriptor) : channel_(platform::Descriptor(descriptor)) {}

    /// Says hello and waits for the state. Returns an empty text, or why there is none.
    [[nodiscard]] std::string takeOver(const std::string& version);
    [[nodiscard]] int state() const { return state_.get(); }
    /// Those that are left, in order.
    [[nodiscard]] platform::Descriptor next();

    /// True when the predecessor ends, or has ended since it handed everything over, which it did
    /// not touch any more: everything may be used from now on.
    [[nodiscard]] bool begin();
    void refuse(const std::string& reason);

  private:
    platform::DescriptorChannel channel_;
    platform::Descriptor state_;
    std::vector<platform::Descriptor> descriptors_;
    std::size_t taken_ = 0;
};

}  // namespace kvx::rvd
