#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kvx::rvd {

class MemoryHolder;

/// What a connection holds memory for, besides routed messages that wait to be written.
enum class Holding : std::uint8_t {
    Connection,  ///< the connection itself
    Incoming,    ///< messages that are not whole yet or on their way, and what was asked
    Control,     ///< answers of the link itself that wait to be written
    Listens,     ///< listens, with their part of the subject tree
    Count
};

/// All memory that the daemon holds for its peers, in bytes, and its limit.
///
/// A message that several queues share counts once here, and in full in each holder. Once a turn
/// of the loop `relieve` takes from the largest holders what is above the limit. The holders are
/// ordered by size only while more than half of the limit is used. Loop thread only; must outlive
/// its holders and all payloads.
class MemoryAccount {
  public:
    explicit MemoryAccount(std::uint64_t limit) : limit_(limit) {}
    MemoryAccount(const MemoryAccount&) = delete;
    MemoryAccount& operator=(const MemoryAccount&) = delete;

    [[nodiscard]] std::uint64_t used() const { return used_; }
    [[nodiscard]] std::uint64_t limit() const { return limit_; }

    /// Bytes by `Holding`.
    using Kinds = std::array<std::uint64_t, static_cast<std::size_t>(Holding::Count)>;
    /// What all holders hold, for which each is looked at.
    [[nodiscard]] Kinds kinds() const;

    /// Memory that no holder has alone: the bytes of a routed message.
    void charge(std::size_t bytes) { used_ += bytes; }
    void discharge(std::size_t bytes) { used_ -= bytes; }

    /// Memory that nobody has any more and that is being freed: it counts until then, but nobody
    /// pays for it.
    void setOrphaned(std::uint64_t bytes) {
        used_ += bytes - orphaned_;
        leaving_ += bytes - orphaned_;
        orphaned_ = bytes;
    }

    /// While more than the limit is used, the largest holder gives up something. Call it when no
    /// message is being routed.
    void relieve();

    /// True when so much was given back since the last true answer that the process should return
    /// it to the system. Call it now and then.
    [[nodiscard]] bool hasFreedMuch();

  private:
    friend class MemoryHolder;

    void enroll(MemoryHolder& holder);
    void remove(MemoryHolder& holder);
    void put(MemoryHolder& holder, std::size_t position);
    void rise(MemoryHolder& holder);
    void sink(MemoryHolder& holder);
    void order();

    const std::uint64_t limit_;
    std::uint64_t used_ = 0;
    std::uint64_t leaving_ = 0;  // of those that gave up all and are about to go, and orphaned
    std::uint64_t orphaned_ = 0;
    std::uint64_t peak_ = 0;  // since memory was returned to the system
    // A heap with the largest holder first while `isOrdered_`, else in any order.
    std::vector<MemoryHolder*> holders_;
    bool isOrdered_ = false;
};

/// The part of one connection.
class MemoryHolder {
  public:
    /// Throws `std::bad_alloc`. `account` must outlive this object.
    explicit MemoryHolder(MemoryAccount& account);
    virtual ~MemoryHolder();
    MemoryHolder(const MemoryHolder&) = delete;
    MemoryHolder& operator=(const MemoryHolder&) = delete;

    void charge(Holding kind, std::size_t bytes) {
        held_[static_cast<std::size_t>(kind)] += bytes;
        change(bytes, bytes);
    }
    void discharge(Holding kind, std::size_t bytes) { charge(kind, 0 - bytes); }
    /// Makes the charge for `kind` equal to `bytes`.
    void setCharge(Holding kind, std::size_t bytes) {
        if (bytes != held(kind)) charge(kind, bytes - held(kind));
    }
    /// Messages in a queue: the holder pays for all of them, the total for their `entries` only.
    void chargeShared(std::size_t messages, std::size_t entries) {
        change(messages + entries, entries);
    }
    void dischargeShared(std::size_t messages, std::size_t entries) {
        change(0 - (messages + entries), 0 - entries);
    }

    [[nodiscard]] std::uint64_t held(Holding kind) const {
        return held_[static_cast<std::size_t>(kind)];
    }
    /// All of it, shared messages in full.
    [[nodiscard]] std::uint64_t held() const { return total_; }

    [[nodiscard]] MemoryAccount& account() const { return account_; }

  protected:
    /// Frees something that may be lost and returns true; or else ends the connection and returns
    /// false. It is not asked again then: what it still holds goes with it.
    virtual bool giveUp() = 0;

  private:
    friend class MemoryAccount;
    void change(std::size_t mine, std::size_t total) {
        total_ += mine;
        account_.used_ += total;
        if (account_.isOrdered_) reorder();
    }
    void reorder();
    [[nodiscard]] std::uint64_t rank() const { return isSpent_ ? 0 : total_; }

    MemoryAccount& account_;
    MemoryAccount::Kinds held_{};
    std::uint64_t total_ = 0;
    std::size_t position_ = 0;   // in the account's holders
    std::uint64_t leaving_ = 0;  // its part of the account's
    bool isSpent_ = false;       // has nothing left to give up
};

}  // namespace kvx::rvd
