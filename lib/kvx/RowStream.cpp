// The loop thread fills the queue of packets; the reading thread empties it and tells the loop what
// it has taken, which grants the service more.

#include "kvx/RowStream.h"

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
        rows_ = std::move(packets->rows);
        place_ = 0;
        loop_->post([self = shared_from_this(), count = packets->count, cost = packets->cost] {
            if (self->exchange != nullptr) self->exchange->took(count, cost);
        });
    }
    return std::move(rows_[place_++]);
}

bool RowStream::State::isReady() const {
    const std::lock_guard guard(mutex_);
    return !ready_.empty() || isEnded_;
}

std::optional<Packets> RowStream::State::waitForPackets() {
    loop_->wait([this] { return isReady(); },
                [this] {
                    std::unique_lock lock(mutex_);
                    changed_.wait(lock, [this] { return !ready_.empty() || isEnded_; });
                });
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

void RowStream::State::add(Packets packets, const AnswerTotals& totals) {
    const std::lock_guard guard(mutex_);
    totals_ = totals;
    if (packets.count == 0 || isEnded_) return;
    ready_.push_back(std::move(packets));
    changed_.notify_all();
}

void RowStream::State::end(std::optional<QueryError> error, bool drops) {
    const std::lock_guard guard(mutex_);
    if (isEnded_) return;
    if (drops) ready_.clear();
    isCancelled_ = drops;
    isEnded_ = true;
    error_ = std::move(error);
    changed_.notify_all();
}

}  // namespace kvx
