#include "python/module/Events.h"

#include <utility>

namespace kvx::python {

namespace {

py::object madeOf(const HeardMessage& heard, RowMaker&) {
    return callPython(
        types().delivery,
        py::make_tuple(textOfBytes(heard.subject), textOfBytes(heard.replySubject), heard.message));
}

py::object madeOf(const HeardRecord& heard, RowMaker& rows) {
    return rows.rowOf(heard.record);
}

py::object madeOf(const FollowedRow& followed, RowMaker& rows) {
    return callPython(types().change, py::make_tuple("row", rows.rowOf(followed.row), "", false));
}

py::object madeOf(const FollowedChange& followed, RowMaker& rows) {
    return changeOfRecord(followed.change, rows, followed.isResynchronised);
}

}  // namespace

py::object objectOf(const Event& event, RowMaker& rows) {
    return std::visit([&](const auto& one) { return madeOf(one, rows); }, event);
}

void Events::add(Event event) {
    std::unique_lock lock(mutex_);
    if (hasEnded_) return;
    if (events_.size() >= most_ && !mayDrop_) {
        hasEnded_ = true;
        error_ = Error{Errc::QueueFull, "changes come faster than they are taken", "follow"};
        return tell(std::move(lock));
    }
    events_.push_back(std::move(event));
    if (events_.size() > most_) {
        events_.pop_front();
        ++dropped_;
    }
    tell(std::move(lock));
}

void Events::end(std::optional<Error> error) {
    std::unique_lock lock(mutex_);
    if (!std::exchange(hasEnded_, true)) error_ = std::move(error);
    tell(std::move(lock));
}

void Events::tell(std::unique_lock<std::mutex> lock) {
    const Function whenReady = std::exchange(whenReady_, {});
    changed_.notify_all();
    lock.unlock();
    if (whenReady) whenReady.call();
}

py::object Events::take(const Deadline& deadline) {
    std::optional<Event> event;
    std::optional<Error> error;
    const auto takeDue = [&] {  // another thread may take as well
        if (events_.empty()) {
            error = error_;
            return hasEnded_;
        }
        event = std::move(events_.front());
        events_.pop_front();
        return true;
    };
    if (!waitUntil(mutex_, changed_, deadline, takeDue)) {
        throw Failure(Error{Errc::TimedOut, "nothing came", "take"});
    }
    if (error) throw Failure(*error);
    return event ? objectOf(*event, rows_) : py::none();
}

bool Events::isReady(const py::object& whenReady) {
    Function function(whenReady);
    const WithoutGil withoutGil;
    const std::lock_guard guard(mutex_);
    if (!isDue()) std::swap(whenReady_, function);
    return isDue();
}

std::uint64_t Events::dropped() const {
    const std::lock_guard guard(mutex_);
    return dropped_;
}

}  // namespace kvx::python
