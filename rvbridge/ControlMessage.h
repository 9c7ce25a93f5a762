#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "rv/message/SubjectView.h"
#include "rv/message/WireFormat.h"
#include "rvbridge/Frame.h"

namespace kvx::bridge {

/// What a control frame says, of untrusted bytes; views into them. docs/bridge.md has the layout.
struct ControlMessage {
    enum Op : std::uint8_t {
        kHello = 1,
        kBeat = 2,
        kChange = 3,
        kAsk = 4,
        kSnapshot = 5,
        kTaken = 6,
        kBye = 7,
        kPing = 8,
        kPong = 9,
        kMarks = 10,
        kMarked = 11
    };
    static constexpr std::uint8_t kAdd = 1;  // before a subject of a change
    static constexpr std::uint8_t kRemove = 2;
    static constexpr std::uint8_t kReadyFlag = 1;
    static constexpr std::uint8_t kSameName = 1;  // of "taken": else it is the daemon
    static constexpr std::size_t kMaxText = 64;   // bytes of "since" and "daemon"

    std::uint8_t op = 0;
    // hello, beat, snapshot; `change` also of a change
    std::uint64_t change = 0;
    std::uint32_t count = 0;
    std::uint64_t digest = 0;
    bool isReady = false;  // also of taken
    std::string_view since;
    std::string_view daemon;
    std::uint32_t part = 0;
    bool isLast = false;
    Bytes list;                   // change, snapshot
    std::uint64_t epoch = 0;      // ask, taken, pong, marks, marked: of whom it is meant for
    bool sameName = false;        // taken
    std::uint64_t stamp = 0;      // ping, pong
    std::uint64_t knowledge = 0;  // pong: `Exchange::knowledgeOf`
    std::uint64_t after = 0;      // marks, marked: a sequence

    [[nodiscard]] bool hasState() const { return op == kHello || op == kBeat || op == kSnapshot; }

    /// False for what cannot be read: nothing else is valid then.
    [[nodiscard]] bool read(Bytes payload);
    /// The next subject of `list`, which `read` has checked.
    static std::optional<SubjectView> takeSubject(WireReader& reader);
    /// Subjects that never cross: those of the daemon's own.
    static bool isReserved(SubjectView subject);

  private:
    bool readState(WireReader& reader);
    bool readList(WireReader& reader);
};

/// Builds one.
class ControlPayload {
  public:
    explicit ControlPayload(std::uint8_t op) : bytes_{op} {}
    ControlPayload& u8(std::uint8_t value) {
        bytes_.push_back(value);
        return *this;
    }
    ControlPayload& u32(std::uint32_t value) {
        bytes_.resize(bytes_.size() + sizeof value);
        storeBig32(&bytes_[bytes_.size() - sizeof value], value);
        return *this;
    }
    ControlPayload& u64(std::uint64_t value) {
        return u32(static_cast<std::uint32_t>(value >> 32U)).u32(static_cast<std::uint32_t>(value));
    }
    ControlPayload& text(std::string_view text) {
        text = text.substr(0, ControlMessage::kMaxText);
        u8(static_cast<std::uint8_t>(text.size()));
        return raw(text);
    }
    ControlPayload& raw(std::string_view bytes) {
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    [[nodiscard]] std::size_t size() const { return bytes_.size(); }
    std::uint8_t& operator[](std::size_t i) { return bytes_[i]; }
    operator Bytes() const { return bytes_; }
    std::vector<std::uint8_t> take() { return std::move(bytes_); }

  private:
    std::vector<std::uint8_t> bytes_;
};

}  // namespace kvx::bridge
