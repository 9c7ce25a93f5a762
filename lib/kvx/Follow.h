#pragma once

#include <functional>
#include <memory>
#include <span>

#include "kvx/ChangeRecord.h"
#include "kvx/Error.h"
#include "kvx/Record.h"
#include "platform/Export.h"

namespace kvx {

/// What is to be done with the rows that are followed. Called on the client's thread, and may end
/// what calls.
struct Follower {
    /// Each row of the answer, in its order.
    std::function<void(const Record& row)> onRow{};
    /// Each change from then on (see `changeOf`, `rowOf`), once and in the order of the service. In
    /// a table with a key not one that leaves a row as it is known, or deletes one that is not.
    std::function<void(const Record& change)> onChange{};
    /// Changes could not be had one by one: after a take-over, a restart of the service or a long
    /// absence. Instead what turns the rows so far into the rows now, maybe nothing; deletions come
    /// first. Without it each is given to `onChange`.
    std::function<void(std::span<const Record> differences)> onResynchronised{};
    /// The last call, unless the handle is destroyed: `Ended` with the client; what the first
    /// question fails with; `InvalidArgument` for an answer that cannot be followed: of a service
    /// that does not number its changes, or without the fields of the key.
    std::function<void(const Error&)> onEnd{};
};

namespace detail {
class Followed;
}  // namespace detail

/// Ends what it stands for when it is destroyed, as a `Subscription` does. May outlive its client.
class KVX_API Following {
  public:
    Following() = default;
    Following(Following&&) noexcept = default;
    Following& operator=(Following&&) noexcept;
    ~Following();

  private:
    friend class Client;
    explicit Following(std::shared_ptr<detail::Followed> followed);

    std::shared_ptr<detail::Followed> followed_;
};

}  // namespace kvx
