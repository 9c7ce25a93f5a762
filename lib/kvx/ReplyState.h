#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "kvx/Answers.h"
#include "kvx/Changes.h"
#include "kvx/QuestionPool.h"
#include "kvx/Reply.h"
#include "mom/mom.h"

namespace kvx {

namespace detail {

/// Adds the row to what `transport` is to pack. False when the record has no encoding.
[[nodiscard]] bool addTo(CVekTransport& transport, const Record& record);

/// The message of a packet, which is numbered `sequence` of `count` (0: not known yet) and has the
/// store status, behind the fields that `message` has; null has none.
std::unique_ptr<RvMsg> packetMessage(const CVekAtom& packet, std::int64_t sequence,
                                     std::int64_t count, EVekStoreErrorStatus status,
                                     std::unique_ptr<RvMsg> message = nullptr);

/// The last packet of an answer, its number `sequence`, which says why there are no more.
std::unique_ptr<RvMsg> refusalMessage(std::string_view why, std::int64_t sequence);

}  // namespace detail

/// The rows of one answer on their way into packets: those of one packet are collected, encoded;
/// one packet is held back, as the last one says how many there are.
class Reply::State {
  public:
    /// `turn` is null on the main thread, which never waits. `begun` is called before the first of
    /// several packets leaves.
    State(std::shared_ptr<detail::OpenAnswer> answer, EVekTransHdr version,
          detail::Turns::Turn* turn, std::function<void()> begun)
        : answer_(std::move(answer)), version_(version), turn_(turn), begun_(std::move(begun)) {}

    bool add(const Record& record);
    /// Adds its packet in place of rows, with its own stamp.
    bool add(const Changes::Notice& notice);
    void asOf(const Stamp& stamp, RowSource source);
    void refuse(const Record& reason, EVekStoreErrorStatus status);
    [[nodiscard]] bool isWanted() const { return answer_->isWanted(); }

    /// Sends what has not left. Once, last.
    void finish();

  private:
    struct Packet {
        std::unique_ptr<CVekAtom> bytes;
        std::optional<Stamp> stamp{};
    };

    [[nodiscard]] unsigned rowsOfPacket() const {
        return version_ == VEK_TRANS_V1 ? VEK_TRANS_V1_RECORDS : 1;
    }
    void seal();
    bool hold(Packet packet);
    void send(Packet packet, std::int64_t count);
    bool giveWay();

    const std::shared_ptr<detail::OpenAnswer> answer_;
    const EVekTransHdr version_;
    detail::Turns::Turn* const turn_;
    const std::function<void()> begun_;

    std::optional<CVekTransport> rowsToPack_{
        nullptr};              // the rows of the packet that is being filled
    unsigned rows_ = 0;        // in it
    std::deque<Packet> held_;  // the last one, or all of an answer that is not streamed
    std::int64_t sealed_ = 0;  // packets so far
    std::int64_t sent_ = 0;
    EVekStoreErrorStatus status_ = STORE_COMPLETE;
    std::optional<Stamp> stamp_;
    RowSource source_;
};

}  // namespace kvx
