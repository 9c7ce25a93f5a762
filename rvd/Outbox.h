#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "rvd/Counters.h"
#include "rvd/DataLoss.h"
#include "rvd/LeanDeque.h"
#include "rvd/MemoryAccount.h"
#include "rvd/Payload.h"
#include "rvd/State.h"

namespace kvx::rvd {

class Delays;

/// What became of the copies that were not delivered.
enum class Drop : std::uint8_t {
    Queue,     ///< the session's own bound
    Memory,    ///< the bound of all memory, or no memory
    Ended,     ///< the session ended
    Shutdown,  ///< the daemon ended
    Count
};

/// The output queue of one peer: routed messages, which are bounded and may be dropped, and the
/// link's own blocks and replies, which are never dropped.
///
/// Above the bound the oldest messages are dropped, except one that is partly written; a large
/// message that takes the place of very many small ones takes it in steps. One notice,
/// ahead of everything not yet begun, announces the loss. For the messages of one peer, at any
/// time: matched = delivered + dropped + waiting; when the queue is destroyed, waiting messages
/// count as dropped. Loop thread only.
class Outbox {
  public:
    struct Totals {
        std::uint64_t matched = 0;
        std::uint64_t delivered = 0;
        std::uint64_t dropped = 0;  ///< the sum of `droppedBy`
        std::array<std::uint64_t, static_cast<std::size_t>(Drop::Count)> droppedBy{};
    };

    /// `limit`: bytes of waiting messages. `holder`, which pays for the queue, `counters` and
    /// `delays` (null: nobody measures) must outlive this object.
    Outbox(std::size_t limit, MemoryHolder& holder, Counters& counters, Delays* delays = nullptr);
    ~Outbox();
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    /// Queues a routed message, and then `trim`s, whose result it returns. Without memory the
    /// message itself is dropped.
    std::size_t pushMessage(const PayloadRef& message);
    /// Drops the oldest messages above the bound, `kDropsAtOnce` at most. Returns their number:
    /// when it is the most there may be more.
    std::size_t trim();
    static constexpr std::size_t kDropsAtOnce = 64;
    /// True when `pushMessage` of `size` bytes would drop something.
    [[nodiscard]] bool wouldDrop(std::size_t size) const {
        return waitingBytes_ + size > limit_ && waitingBytes() + size > limit_;
    }

    /// Queues bytes of the link itself, which are never dropped. Returns false, and queues nothing,
    /// when they would take more than `kControlLimit` of memory: the peer sends requests without
    /// reading. Throws `std::bad_alloc` and changes nothing.
    [[nodiscard]] bool pushControl(wire::Bytes bytes);
    /// The same, ahead of everything not yet begun but a notice and what has gone ahead before.
    [[nodiscard]] bool pushAhead(wire::Bytes bytes);

    /// Drops the oldest message not begun. False when there is none.
    bool dropOldest(LossCause cause);

    /// From now on notices name the subjects of what was dropped.
    void nameDropped() { namesDropped_ = true; }

    /// Announces the end of the session for that reason, although no message may have been lost.
    void announceEnd(LossCause cause);

    /// What still waits when this object is destroyed will be counted as dropped for that reason.
    void endsFor(Drop reason) { endReason_ = reason; }

    /// Drops the first entry, for that reason when it is a message, and returns its bytes. Nothing
    /// is written any more. The queue must not be empty.
    std::size_t discardFront();

    [[nodiscard]] bool empty() const { return entries_.empty() && !loss_.any(); }

    /// True while the first entry is partly written, so that nothing can come before its end.
    [[nodiscard]] bool isWithinEntry() const { return frontBegun_; }

    /// Fills `out` with views of the next bytes to write, in order, and returns their number. They
    /// are valid until the queue changes. Throws `std::bad_alloc` without memory for a notice.
    [[nodiscard]] std::size_t gather(std::span<wire::Bytes> out);

    /// Marks the first `bytes` of the queue as written.
    void written(std::size_t bytes);

    /// Marks the first entry as begun, so that it is not dropped, and returns its rest. The bytes
    /// stay in place until `written` has covered them. The queue must not be empty.
    [[nodiscard]] wire::Bytes pinFront();

    /// Gives back the memory of places that nothing is in: about once a second.
    void rest() { entries_.rest(); }

    /// For the daemon that takes this one's place. A queue that is restored must be new.
    void save(StateWriter& state) const;
    void restore(StateReader& state);

    [[nodiscard]] std::size_t waitingMessages() const { return waitingMessages_; }
    /// Bytes of waiting messages without what is written of the first.
    [[nodiscard]] std::size_t waitingBytes() const {
        return waitingBytes_ - (inMessage() ? sentOfFront_ : 0);
    }
    [[nodiscard]] const Totals& totals() const { return totals_; }

    static constexpr std::size_t kControlLimit = 64 * 1024;
    /// Charged for a place in the queue, besides the bytes and the record of the payload.
    static constexpr std::size_t kEntryCost = 24;

  private:
    enum class Kind : std::uint8_t { Message, Control, Ahead, Notice };
    // The state of the notice at the first place not begun.
    enum class Notice : std::uint8_t {
        None,    // no notice
        Stale,   // older than loss_
        Current  // announces loss_
    };
    struct Entry {
        PayloadRef payload;
        std::uint32_t size;  // of the payload, also when it is lost
        Kind kind;
    };

    bool inMessage() const { return frontBegun_ && entries_.front().kind == Kind::Message; }
    void addWaiting(Payload& message, std::size_t size) {
        message.chargeTo(holder_.account());
        holder_.chargeShared(size, kEntryCost);
        waitingBytes_ += size;
        ++waitingMessages_;
    }
    void removeWaiting(std::size_t messages, std::size_t bytes) {
        holder_.dischargeShared(bytes, messages * kEntryCost);
        waitingBytes_ -= bytes;
        waitingMessages_ -= messages;
    }
    bool insertControl(std::size_t position, wire::Bytes bytes, Kind kind);
    void drop(std::size_t position, std::size_t number, LossCause cause);
    std::size_t dropForRoom(std::size_t most);
    [[nodiscard]] std::size_t oldestMessage() const;
    void nameDropped(const Payload& message) {
        if (namesDropped_) dropped_.add(message.bytes());
    }
    void recordLoss(std::size_t messages, std::size_t bytes, LossCause cause);
    void count(Drop reason, std::uint64_t messages = 1);
    void dropLost();
    void placeNotice();
    void beginFront();
    void noteDelivered(const Entry& entry);
    void popFront();

    // Constant after construction.
    const std::size_t limit_;
    MemoryHolder& holder_;
    Counters& counters_;
    Delays* const delays_;

    LeanDeque<Entry> entries_;
    std::size_t ahead_ = 0;         // entries of that kind
    bool frontBegun_ = false;       // the first entry is being written
    std::size_t sentOfFront_ = 0;   // bytes of it that are written
    std::size_t waitingBytes_ = 0;  // of messages, whole ones
    std::uint64_t waitingMessages_ = 0;
    Loss loss_;                // not announced yet, or announced by a notice not begun
    DroppedSubjects dropped_;  // of `loss_`
    bool namesDropped_ = false;
    Notice notice_ = Notice::None;
    Totals totals_;
    Drop endReason_ = Drop::Ended;
};

}  // namespace kvx::rvd
