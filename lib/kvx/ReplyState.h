#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "kvx/Answers.h"
#include "kvx/Changes.h"
#include "kvx/Packer.h"
#include "kvx/QuestionPool.h"
#include "kvx/Reply.h"
#include "mom/mom.h"

namespace kvx {

namespace detail {

inline constexpr std::size_t kMessageRoom = 64;  // bytes of a message beside its packet

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

/// The rows of one answer on their way into packets: those of a few are collected, encoded; one
/// packet is held back, as the last one says how many there are.
class Reply::State {
  public:
    /// What a thread of the pool works with.
    struct Worker {
        detail::Turns::Turn& turn;
        detail::Packer& packer;
        /// Whether the answer would come too late, had it not begun; then it is not begun.
        std::function<bool()> isTooLate;
    };

    /// `worker` is null on the main thread, which never waits. `begun` is called before the first
    /// of several packets leaves.
    State(std::shared_ptr<detail::OpenAnswer> answer, EVekTransHdr version, const Worker* worker,
          std::function<void()> begun)
        : answer_(std::move(answer)),
          version_(version),
          worker_(worker),
          begun_(std::move(begun)) {}

    bool add(const Record& record);
    /// Adds its packet in place of rows, with its own stamp.
    bool add(const Changes::Notice& notice);
    void asOf(const Stamp& stamp, RowSource source);
    void refuse(const Record& why, EVekStoreErrorStatus status);
    [[nodiscard]] bool isWanted() const { return answer_->isWanted(); }

    /// Sends what has not left. Once, last.
    void finish();

  private:
    struct Packet {
        detail::PackedRows bytes;
        std::optional<Stamp> stamp{};
    };
    using Block = detail::Packer::Block;

    /// Blocks that are packed while further rows are read.
    static constexpr std::size_t kMostBlocks = 2;

    /// The first rows leave early; then several packets are made and sent at a time, which costs
    /// fewer changes of thread.
    [[nodiscard]] unsigned rowsOfBlock() const {
        return sealed_ == 0 && blocks_.empty() ? VEK_TRANS_V1_RECORDS : 4 * VEK_TRANS_V1_RECORDS;
    }
    void closeBlock();
    void takeBlock();
    void hold(std::vector<detail::PackedRows> packets, const std::optional<Stamp>& stamp);
    void send(std::size_t packets, std::int64_t count);
    bool giveWay();
    static std::unique_ptr<CVekTransport> newBlock() {
        return std::make_unique<CVekTransport>(nullptr);
    }

    const std::shared_ptr<detail::OpenAnswer> answer_;
    const EVekTransHdr version_;
    const Worker* const worker_;
    const std::function<void()> begun_;

    std::unique_ptr<CVekTransport> open_ =
        newBlock();                              // the rows of the block that is being filled
    unsigned rows_ = 0;                          // in it
    std::deque<std::shared_ptr<Block>> blocks_;  // being packed, oldest first
    std::deque<Packet> held_;  // the last one, or all of an answer that is not streamed
    std::int64_t sealed_ = 0;  // packets so far
    std::int64_t sent_ = 0;
    EVekStoreErrorStatus status_ = STORE_COMPLETE;
    std::optional<Stamp> stamp_;
    RowSource source_;
};

}  // namespace kvx
