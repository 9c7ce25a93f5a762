#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <variant>

#include "python/module/Values.h"
#include "python/module/Waiting.h"

namespace kvx::python {

/// A message that was heard.
struct HeardMessage {
    std::string subject;
    std::string replySubject;
    Message message;
};
/// A record of a service, as it came.
struct HeardRecord {
    Record record;
};
/// A row of the service that is followed, or a change of one.
struct FollowedRow {
    Record row;
};
struct FollowedChange {
    Record change;
    bool isResynchronised = false;
};

/// What a subscription hears.
using Event = std::variant<HeardMessage, HeardRecord, FollowedRow, FollowedChange>;

/// As Python sees it. GIL held.
py::object objectOf(const Event& event, RowMaker& rows);

/// Events that wait to be taken by Python. The client's thread adds them, without the GIL.
class Events {
  public:
    /// At most so many wait. Beyond that either the oldest is dropped and counted, or, when none
    /// may be missing, it ends with `QueueFull`.
    Events(std::size_t most, bool mayDrop) : most_(most), mayDrop_(mayDrop) {}

    /// Any thread.
    void add(Event event);
    /// No more come. Any thread; the first one counts.
    void end(std::optional<Error> error);

    /// Waits for the next one; null at the end. `TimedOut` at the deadline. GIL held.
    py::object take(const Deadline& deadline);
    /// Whether `take` would not wait; when not, `whenReady` is called as soon as it would not. GIL
    /// held.
    bool isReady(const py::object& whenReady);
    [[nodiscard]] std::uint64_t dropped() const;

  private:
    [[nodiscard]] bool isDue() const { return !events_.empty() || hasEnded_; }
    void tell(std::unique_lock<std::mutex> lock);

    const std::size_t most_;
    const bool mayDrop_;
    RowMaker rows_;  // guarded by the GIL

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::deque<Event> events_;
    std::uint64_t dropped_ = 0;
    bool hasEnded_ = false;
    std::optional<Error> error_;
    Function whenReady_;
};

}  // namespace kvx::python
