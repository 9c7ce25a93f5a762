#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "rvd/Counters.h"
#include "rvd/DataLoss.h"
#include "rvd/Payload.h"

namespace kvx::rvd {

class Outbox;

/// The total of all queues of a daemon. Above `limit`, the queue with most waiting drops its oldest
/// messages; one that holds only a begun message is passed over. Loop thread only; must outlive its
/// queues.
class OutboxPool {
  public:
    /// `limit` in bytes of messages and of the daemon's overhead for each.
    explicit OutboxPool(std::uint64_t limit) : limit_(limit) {}

    [[nodiscard]] std::uint64_t used() const { return used_; }
    [[nodiscard]] std::uint64_t limit() const { return limit_; }

  private:
    friend class Outbox;
    void shrinkToLimit();

    const std::uint64_t limit_;
    std::uint64_t used_ = 0;
    std::vector<Outbox*> members_;
};

/// The output queue of one peer: routed messages, which are bounded and may be dropped, and the
/// link's own blocks and replies, which are never dropped.
///
/// Above the bound the oldest messages are dropped, except one that is partly written. One notice,
/// ahead of everything not yet begun, announces the loss. For the messages of one peer, at any
/// time: matched = delivered + dropped + waiting; when the queue is destroyed, waiting messages
/// count as dropped.
class Outbox {
  public:
    struct Totals {
        std::uint64_t matched = 0;
        std::uint64_t delivered = 0;
        std::uint64_t dropped = 0;
    };

    /// `limit`: bytes of waiting messages. `pool` and `counters` must outlive this object.
    Outbox(std::size_t limit, OutboxPool& pool, Counters& counters);
    ~Outbox();
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    /// Queues a routed message, dropping the oldest ones above the bound.
    void pushMessage(const PayloadRef& message);
    /// True when `pushMessage` of `size` bytes would drop something.
    [[nodiscard]] bool wouldDrop(std::size_t size) const;

    /// Queues bytes of the link itself, which are never dropped. Returns false, and queues nothing,
    /// when more than `kControlLimit` of them would wait: the peer sends requests without reading.
    [[nodiscard]] bool pushControl(wire::Bytes bytes);

    [[nodiscard]] bool empty() const { return entries_.empty() && !loss_.any(); }

    /// Fills `out` with views of the next bytes to write, in order, and returns their number. They
    /// are valid until the queue changes.
    [[nodiscard]] std::size_t gather(std::span<wire::Bytes> out);

    /// Marks the first `bytes` of the queue as written.
    void written(std::size_t bytes);

    /// Marks the first entry as begun, so that it is not dropped, and returns its rest. The bytes
    /// stay in place until `written` has covered them. The queue must not be empty.
    [[nodiscard]] wire::Bytes pinFront();

    [[nodiscard]] std::size_t waitingMessages() const;
    [[nodiscard]] std::size_t waitingBytes() const { return waitingBytes_; }
    [[nodiscard]] const Totals& totals() const { return totals_; }

    static constexpr std::size_t kControlLimit = 64 * 1024;

  private:
    friend class OutboxPool;
    enum class Kind : std::uint8_t { Message, Control, Notice };
    // The state of the notice at the first place not begun.
    enum class Notice : std::uint8_t {
        None,    // no notice
        Stale,   // older than loss_
        Current  // announces loss_
    };
    struct Entry {
        PayloadRef payload;
        Kind kind;
    };

    bool inMessage() const;  // the front is a message, and begun
    bool canDrop() const;    // a message not begun waits
    void charge(std::size_t size);
    void discharge(std::size_t size);
    void recordLoss(std::size_t size, LossCause cause);
    bool dropOldest(LossCause cause);
    void placeNotice();
    void beginFront();
    void popFront();

    // Constant after construction.
    const std::size_t limit_;
    OutboxPool& pool_;
    Counters& counters_;

    std::deque<Entry> entries_;
    bool frontBegun_ = false;       // the first entry is being written
    std::size_t sentOfFront_ = 0;   // bytes of it that are written
    std::size_t waitingBytes_ = 0;  // of messages, whole ones
    std::size_t controlBytes_ = 0;
    Loss loss_;  // not announced yet, or announced by a notice not begun
    Notice notice_ = Notice::None;
    Totals totals_;
};

}  // namespace kvx::rvd
