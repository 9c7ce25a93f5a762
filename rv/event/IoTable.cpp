// Watched sockets.
//
// There is one list of entries for each condition, sorted by socket, and one poll set with one slot
// for each socket, whatever the number of its conditions. Both change only when an entry is added
// or removed, so a wait builds nothing. After a wait the lists and the poll set are walked in
// parallel, since both are sorted by socket.
//
// The ready list holds ids, not pointers: an entry that a callback removed is skipped, even when
// its socket number is in use again. When a callback stops the loop the rest of the list is
// dropped: the system reports a ready socket again, and an entry made ready keeps its mark until it
// is called.

#include "rv/event/IoTable.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <new>
#include <utility>

#include "platform/Clock.h"
#include "rv/error/rvCodes.h"
#include "rv/error/rvErrors.h"

namespace kvx::event {

namespace {

constexpr std::size_t kMaxWatched = 1'024;  // entries of one condition

namespace socket_error = platform::socket_error;

bool isCondition(rvevm_IoEventType condition) noexcept {
    return condition == RVEVM_READ || condition == RVEVM_WRITE || condition == RVEVM_EXCEPTION;
}

void reportWaitError(int error) noexcept {
    std::fprintf(stderr, "select error: %d (%s)\n", error, rv_SocketErrorText(error));
}

}  // namespace

IoTable::List& IoTable::listOf(rvevm_IoEventType condition) noexcept {
    return lists_[condition == RVEVM_READ ? 0 : condition == RVEVM_WRITE ? 1 : 2];
}

IoTable::List::iterator IoTable::placeOf(List& list, platform::SocketHandle socket) noexcept {
    return std::lower_bound(
        list.begin(), list.end(), socket,
        [](const Watched& w, platform::SocketHandle s) { return w.socket < s; });
}

int IoTable::add(rvevm_Id* id, unsigned int socket, rvevm_IoEventType condition,
                 rvevm_Callback callback, void* closure) {
    if (id == nullptr) return event_code::kInvalidId;
    if (callback == nullptr) return event_code::kInvalidCallback;
    const auto handle = static_cast<platform::SocketHandle>(socket);
    if (socket > INT_MAX || !platform::isSocket(handle)) return event_code::kInvalidSource;
    if (!isCondition(condition)) return event_code::kInvalidCondition;
    const List& list = listOf(condition);
    const auto place = placeOf(listOf(condition), handle);
    if (place != list.end() && place->socket == handle) return event_code::kInvalidSource;
    if (list.size() >= kMaxWatched) return event_code::kResourcesExceeded;
    return insert({handle, condition, callback, closure, false}, id);
}

int IoTable::insert(const Entry& entry, rvevm_Id* id) {
    List& list = listOf(entry.condition);
    try {
        list.reserve(std::max(list.capacity(), std::min(kMaxWatched, list.size() * 2 + 4)));
        ready_.reserve(std::max(ready_.capacity(), entries_.size() * 2 + 4));
    } catch (const std::bad_alloc&) {
        return event_code::kResourcesExceeded;
    }
    rvevm_Id added = entries_.add(entry);
    if (added == nullptr) return event_code::kResourcesExceeded;
    if (!poll_.add(entry.socket, entry.condition)) {
        entries_.remove(added);
        return event_code::kResourcesExceeded;
    }
    list.insert(placeOf(list, entry.socket), {entry.socket, added});
    *id = added;
    return event_code::kOk;
}

int IoTable::remove(rvevm_Id id) noexcept {
    const Entry* entry = entries_.find(id);
    if (entry == nullptr) return event_code::kInvalidId;
    List& list = listOf(entry->condition);
    list.erase(placeOf(list, entry->socket));
    poll_.remove(entry->socket, entry->condition);
    if (entry->forced) --forcedCount_;
    entries_.remove(id);
    return event_code::kOk;
}

int IoTable::makeReady(rvevm_Id id) noexcept {
    Entry* entry = entries_.find(id);
    if (entry == nullptr) return event_code::kInvalidId;
    if (!entry->forced) ++forcedCount_;
    entry->forced = true;
    return event_code::kOk;
}

void IoTable::wait(platform::Milliseconds timeout) {
    if (!mustAsk()) return collectAll(false, false);
    collectReady(poll_.wait(forcedCount_ == 0 ? timeout : 0));
}

bool IoTable::mustAsk() noexcept {
    if (forcedCount_ != 0 && ++unasked_ < kStepsUnasked && platform::monotonicMs() == askedAt_)
        return false;
    unasked_ = 0;
    askedAt_ = forcedCount_ != 0 ? platform::monotonicMs() : -1;
    return true;
}

void IoTable::collectReady(int waitError) {
    const bool down = waitError == socket_error::kNetworkDown;
    if (waitError != 0 && !down && waitError != socket_error::kInterrupted) {
        reportWaitError(waitError);
    }
    // A closed descriptor affects only its own entry.
    const bool useReadiness =
        (waitError == 0 || waitError == socket_error::kNotASocket) && poll_.readyCount() != 0;
    if (useReadiness || down || forcedCount_ != 0) collectAll(useReadiness, down);
}

void IoTable::collectAll(bool useReadiness, bool allReadable) {
    collect(lists_[0], useReadiness, allReadable);
    collect(lists_[1], useReadiness, false);
    collect(lists_[2], useReadiness, false);
}

void IoTable::collect(List& list, bool useReadiness, bool allReady) {
    std::size_t slot = 0;
    for (const Watched& watched : list) {
        bool ready = allReady;
        const Entry& entry = *entries_.find(watched.id);
        if (useReadiness) {
            while (poll_.slot(slot).socket != watched.socket) ++slot;
            ready = ready || (poll_.slot(slot).ready & entry.condition) != 0;
        }
        if (ready || entry.forced) ready_.push_back(watched.id);
    }
}

bool IoTable::nextReady(Ready& ready) noexcept {
    while (nextReady_ < ready_.size()) {
        rvevm_Id id = ready_[nextReady_++];
        if (Entry* entry = entries_.find(id)) {
            if (std::exchange(entry->forced, false)) --forcedCount_;
            ready = {id, entry->callback, entry->closure};
            return true;
        }
    }
    return false;
}

void IoTable::clearReady() noexcept {
    ready_.clear();
    nextReady_ = 0;
}

}  // namespace kvx::event
