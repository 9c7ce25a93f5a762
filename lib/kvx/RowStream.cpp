// The loop thread fills the queue of packets; the reading thread empties it and tells the loop what
// it has taken, which grants the service more.

#include "kvx/RowStream.h"

#include <algorithm>
#include <iterator>

#include "kvx/StreamState.h"

namespace kvx {

using detail::Packets;

RowStream::RowStream(std::shared_ptr<State> state) : state_(std::move(state)) {}

RowStream& RowStream::operator=(RowStream&& other) noexcept {
    if (this != &other) {
        const RowStream ending(std::move(*this));
        state_ = std::move(other.state_);
    }
    return *this;
}

RowStream::~RowStream() {
    if (state_) state_->cancel();
}

tl::expected<std::optional<Record>, QueryError> RowStream::next() {
    return state_->next();
}

bool RowStream::isReady(std::function<void()> whenReady) {
    return state_->isReady(std::move(whenReady));
}

QueryResult RowStream::rest() {
    return state_->rest();
}

void RowStream::cancel() {
    state_->cancel();
}

AnswerTotals RowStream::totals() const {
    return state_->totals();
}

tl::expected<std::optional<Record>, QueryError> RowStream::State::next() {
    if (!loop_->mayWait()) return tl::unexpected(detail::waitsForItself(tried));
    while (isCancelled_ || place_ == rows_.size()) {
        auto packets = waitForPackets();
        if (!packets) {
            const std::lock_guard guard(mutex_);
            if (error_) return tl::unexpected(*error_);
            return std::optional<Record>();
        }
        tellTaken(*packets);
        rows_ = std::move(packets->rows);
        place_ = 0;
    }
    return std::move(rows_[place_++]);
}

bool RowStream::State::isReady(std::function<void()> whenReady) {
    Packets empty;  // packets without rows, for which `next` would not return
    bool isReady = false;
    {
        const std::lock_guard guard(mutex_);
        const bool hasRows = !isCancelled_ && place_ < rows_.size();
        while (!hasRows && !ready_.empty() && ready_.front().rows.empty()) {
            append(empty, ready_.front());
            ready_.pop_front();
        }
        isReady = hasRows || isEnded_ || !ready_.empty();
        if (!isReady) whenReady_.swap(whenReady);
    }
    if (empty.count != 0) tellTaken(empty);
    return isReady;
}

QueryResult RowStream::State::rest() {
    if (!loop_->mayWait()) return tl::unexpected(detail::waitsForItself(tried));
    detail::Packets all;
    if (!isCancelled_) {
        std::move(rows_.begin() + static_cast<std::ptrdiff_t>(place_), rows_.end(),
                  std::back_inserter(all.rows));
    }
    place_ = rows_.size();
    const auto takeReady = [&] {
        for (detail::Packets& packets : ready_) append(all, packets);
        ready_.clear();
    };
    {
        const std::lock_guard guard(mutex_);
        takesAll_ = true;
        takeReady();
    }
    tellTaken(all);
    waitUntilReady();
    const std::lock_guard guard(mutex_);
    takeReady();
    if (!error_) return std::move(all.rows);
    QueryError error = *error_;
    std::ranges::move(error.rows, std::back_inserter(all.rows));
    error.rows = std::move(all.rows);
    return tl::unexpected(std::move(error));
}

void RowStream::State::tellTaken(const Packets& packets) {
    loop_->post([self = shared_from_this(), count = packets.count, cost = packets.cost] {
        if (self->exchange != nullptr && count != 0) self->exchange->took(count, cost);
    });
}

void RowStream::State::waitUntilReady() {
    const auto isReady = [this] { return isEnded_ || (!takesAll_ && !ready_.empty()); };
    const auto block = [&] {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, isReady);
    };
    const auto look = [&] {
        const std::lock_guard guard(mutex_);
        return isReady();
    };
    loop_->wait(look, block);
}

std::optional<Packets> RowStream::State::waitForPackets() {
    waitUntilReady();
    const std::lock_guard guard(mutex_);
    if (ready_.empty()) return std::nullopt;
    Packets packets = std::move(ready_.front());
    ready_.pop_front();
    return packets;
}

void RowStream::State::cancel() {
    end(QueryError{{Errc::Ended, "cancelled", tried}, {}}, true);
    loop_->post([self = shared_from_this()] {
        if (self->exchange != nullptr) self->exchange->cancel();
    });
}

AnswerTotals RowStream::State::totals() const {
    const std::lock_guard guard(mutex_);
    return totals_;
}

bool RowStream::State::add(Packets packets, const AnswerTotals& totals) {
    std::function<void()> ready;
    bool isTaken = false;
    {
        const std::lock_guard guard(mutex_);
        totals_ = totals;
        if (packets.count != 0 && !isEnded_) ready_.push_back(std::move(packets));
        isTaken = takesAll_;
        if (!isTaken) ready = wake();
    }
    if (ready) ready();
    return isTaken;
}

void RowStream::State::end(std::optional<QueryError> error, bool drops) {
    std::function<void()> ready;
    {
        const std::lock_guard guard(mutex_);
        if (isEnded_) return;
        if (drops) ready_.clear();
        isCancelled_ = drops;
        isEnded_ = true;
        error_ = std::move(error);
        ready = wake();
    }
    if (ready) ready();
}

std::function<void()> RowStream::State::wake() {
    changed_.notify_all();
    return std::exchange(whenReady_, {});
}

}  // namespace kvx
