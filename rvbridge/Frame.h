#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rv/error/rvReasons.h"
#include "rv/message/SubjectView.h"
#include "rv/message/WireFormat.h"

namespace kvx::bridge {

[[nodiscard]] inline bool take64(WireReader& reader, std::uint64_t& value) {
    const std::uint8_t* at = nullptr;
    if (!reader.take(sizeof value, at)) return false;
    value = loadBig64(at);
    return true;
}

using LossCause = BridgeLossCause;

enum class FrameKind : std::uint8_t { Data = 1, Part = 2, Control = 3, Runs = 4 };

/// The place of a message among all that a bridge sends in a space, and among those on its subject.
struct MessageNumber {
    std::uint64_t sequence = 0;  ///< 1.. in the bridge's epoch
    std::uint32_t keyEpoch = 0;  ///< of the subject's entry in the sender's table
    std::uint64_t number = 0;    ///< 1.. in the key epoch
};

/// What one engine message holds, as `readFrame` finds it: never `Runs`, but data with a `rest`.
/// Borrows the bytes.
struct Frame {
    FrameKind kind = FrameKind::Data;
    std::string_view host;    ///< 1 to 255 bytes
    std::uint64_t epoch = 0;  ///< of the bridge
    MessageNumber first;      ///< of the first message; of control: see `FrameWriter::control`
    /// To one host only: what the sender knows of it (`Exchange::knowledgeOf`).
    std::optional<std::uint64_t> knowledge;

    std::uint32_t count = 0;              ///< data: messages; 0 for a mark
    LossCause cause = LossCause::Engine;  ///< of a mark
    std::uint32_t total = 0;              ///< part: bytes of the whole message
    std::uint32_t offset = 0;             ///< part: of `body` in it
    Bytes body;  ///< data: the messages (see `FrameMessages`); part: its bytes; control: all
    Bytes rest;  ///< data: the runs on other subjects behind this one (see `nextRun`)

    /// Says: `first` is the number of the next message on this subject; what is missing up to it
    /// is lost.
    [[nodiscard]] bool isMark() const { return kind == FrameKind::Data && count == 0; }
};

/// Reads untrusted bytes. Nothing for another magic, version or kind, for what runs past the end,
/// and when bytes are left over. Allocates nothing.
[[nodiscard]] std::optional<Frame> readFrame(Bytes bytes);

/// Turns a data frame from `readFrame` into one with the next run, and sets its subject. False,
/// with nothing changed, when there is none.
[[nodiscard]] bool nextRun(Frame& frame, SubjectView& subject);

/// The messages of a data frame from `readFrame`, in order.
class FrameMessages {
  public:
    explicit FrameMessages(const Frame& frame) : reader_(frame.body.data(), frame.body.size()) {}
    /// False at the end.
    bool next(Bytes& message);

  private:
    WireReader reader_;
};

/// Builds the engine messages of one bridge in one space. Messages are collected as long as they
/// follow one another, in runs of one subject:
///
///     if (!writer.fitsWhole(message.size())) { publish what is open; writer.parts(...); return; }
///     if (!writer.append(number, message)) { publish(writer.open()); writer.clear(); append }
///
/// Views that it returns are valid until the next call.
class FrameWriter {
  public:
    static constexpr std::size_t kDefaultLimit = 1'048'576;  ///< bytes of one engine message
    static constexpr std::size_t kLeastLimit = 4'096;

    /// `host` has 1 to 255 bytes (what is more is cut off).
    FrameWriter(std::string_view host, std::uint64_t epoch, std::size_t limit = kDefaultLimit);

    /// What is begun afterwards goes to one host only, or to all.
    void setKnowledge(std::optional<std::uint64_t> knowledge) { knowledge_ = knowledge; }

    /// The engine's payload limit, at least `kLeastLimit`. Holds for what is begun afterwards.
    void setLimit(std::size_t limit);
    [[nodiscard]] std::size_t limit() const { return limit_; }

    /// Whether a message of so many bytes crosses in one frame; else it needs `parts`.
    [[nodiscard]] bool fitsWhole(std::size_t bytes) const;

    /// Adds a message that fits. False, with nothing changed, when the open frame is full or the
    /// message does not continue it: another key epoch, or not the next sequence and number.
    [[nodiscard]] bool append(const MessageNumber& number, Bytes message);
    /// The same for a message that begins a run on another subject; one is open.
    [[nodiscard]] bool appendRun(SubjectView subject, const MessageNumber& number, Bytes message);
    [[nodiscard]] bool empty() const { return count_ == 0; }
    /// The open frame, which has at least one message.
    [[nodiscard]] Bytes open();
    void clear();

    /// A frame for each part of a message, in order; `emit(Bytes)` publishes it. Nothing is open.
    template <class Emit>
    void parts(const MessageNumber& number, Bytes message, Emit&& emit) {
        for (std::size_t at = 0; at < message.size(); at += partBytes()) {
            emit(part(number, message, at));
        }
    }
    /// Bytes of a message in each part but the last.
    [[nodiscard]] std::size_t partBytes() const;

    /// `next`: the number that the subject's next message will have. Nothing is open.
    [[nodiscard]] Bytes mark(const MessageNumber& next, LossCause cause);
    /// `place`: `Sender::last`, with the number among the control messages to all, from 1; 0 for
    /// one to one host. Nothing is open.
    [[nodiscard]] Bytes control(Bytes payload, const MessageNumber& place);

  private:
    void begin(FrameKind kind, const MessageNumber& number);
    void put32(std::uint32_t value);
    void put64(std::uint64_t value);
    void putMessage(const MessageNumber& number, Bytes message);
    void endRun();
    [[nodiscard]] Bytes part(const MessageNumber& number, Bytes message, std::size_t at);
    [[nodiscard]] std::size_t headerBytes() const;

    const std::string host_;
    const std::uint64_t epoch_;
    std::size_t limit_;
    std::optional<std::uint64_t> knowledge_;
    std::vector<std::uint8_t> bytes_;
    MessageNumber next_;       // what continues the open frame
    std::size_t countAt_ = 0;  // of the open run
    std::uint32_t count_ = 0;  // of its messages
};

}  // namespace kvx::bridge
