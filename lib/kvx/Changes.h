#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kvx/ChangeRecord.h"
#include "kvx/Error.h"
#include "kvx/Record.h"
#include "kvx/Stamp.h"
#include "platform/Export.h"

namespace kvx {

/// The numbered changes of a service: its followers get every one, once and in order.
///
/// The service's data change inside `commit` and are read for an answer inside `read`, so that an
/// answer says exactly which changes are in it. Every notice has the next number of the epoch; the
/// newest ones are held for followers that missed some. Any thread.
class KVX_API Changes {
  public:
    using Packet = std::vector<unsigned char>;

    /// A packet of at most 100 changes, a batch of its own, and its number.
    struct Notice {
        Stamp stamp;
        std::shared_ptr<const Packet> packet;

        /// The message that carries it. An empty one without memory.
        [[nodiscard]] RvMsg message() const;
    };

    /// How notices leave. Called with a lock held: neither function may call this object.
    struct Outlet {
        /// Whether so many notices can be sent now; on failure nothing is committed.
        std::function<Result<>(std::size_t notices)> room;
        std::function<void(const Notice&)> send;
    };

    /// What is held; past it the oldest notices go.
    struct Limits {
        std::size_t notices = 10'000;
        std::size_t bytes = std::size_t{16} << 20U;
    };

    explicit Changes(Outlet outlet);
    Changes(Outlet outlet, Limits limits);

    /// Tells followers by which fields rows of `table` ("" for the service's only one) are told
    /// apart. A table without a key is followed by whole rows: changing one in place then leaves
    /// the old one behind. Names have no zero byte.
    void setKey(std::string_view table, std::vector<std::string> fields);

    /// Runs `apply`, which changes the data, then numbers `changes` (see `changeRecord`) and sends
    /// them. One at a time, and no `read` meanwhile. When `apply` fails, which must leave the data
    /// as they were, its error is returned and nothing is told. Not `apply` but `InvalidArgument`
    /// for a record that tells no change or is too large, and while the member is not active; what
    /// `Outlet::room` gives. `apply` must neither call this object nor wait for a thread that does.
    Result<> commit(std::span<const Record> changes, const std::function<Result<>()>& apply = {});
    Result<> commit(const Record& change, const std::function<Result<>()>& apply = {}) {
        return commit(std::span(&change, 1), apply);
    }

    /// Runs `take`, which copies what an answer needs or begins a read transaction, and returns the
    /// stamp of the data that it saw; epoch 0 while the member is not active. Beside other reads,
    /// not beside a commit. `take` must not call `commit`.
    [[nodiscard]] Stamp read(const std::function<void()>& take) const;

    /// The source that an answer names whose rows are of `table`.
    [[nodiscard]] RowSource source(std::string_view table = {}) const;

    // --- For the service that has it ---

    /// This member has become active: a new epoch begins. 0 when it is active no more. Waits for
    /// nothing; a commit that is running ends in the epoch in which it began.
    void begin(std::uint64_t epoch) { epoch_ = epoch; }

    /// Begins an epoch when this member has become active, and another one when it may act again
    /// after it was stopped for so long that another may have been active; ends it when it is
    /// active no more. Whether one has begun. One thread.
    bool keepEpoch(bool isActive, bool mayAct);

    /// An epoch that no member has had.
    [[nodiscard]] static std::uint64_t newEpoch();

    /// Sends a notice without changes that has the number of the last one, by which followers see
    /// that they missed it or that a new epoch has begun. Nothing while not active, and during a
    /// commit, which tells the number itself.
    void tell() const;

    /// The notices after `stamp`, oldest first; when there are none, one without changes. Nothing
    /// when `stamp` is of another epoch or the next notice is not held any more.
    [[nodiscard]] std::optional<std::vector<Notice>> since(const Stamp& stamp) const;

  private:
    [[nodiscard]] std::uint64_t numberOf(std::uint64_t epoch) const;
    void hold(const Notice& notice);

    const Outlet outlet_;
    const Limits limits_;
    std::atomic<std::uint64_t> epoch_{0};

    // Of the thread that keeps the epoch.
    bool mayHaveActed_ = false;
    bool hasStood_ = false;  // since then

    mutable std::shared_mutex mutex_;
    // Guarded by mutex_.
    Stamp last_;               // of the last notice with changes
    std::deque<Notice> held_;  // the newest ones; those of an epoch are consecutive
    std::size_t heldBytes_ = 0;
    std::map<std::string, std::vector<std::string>, std::less<>> keys_;
};

}  // namespace kvx
