#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "kvx/Exchange.h"
#include "kvx/RowStream.h"

namespace kvx {

/// What a stream and the exchange that fills it share.
class RowStream::State : public std::enable_shared_from_this<RowStream::State> {
  public:
    State(std::shared_ptr<detail::ClientLoop> loop, std::string what)
        : tried(std::move(what)), loop_(std::move(loop)) {}

    tl::expected<std::optional<Record>, QueryError> next();
    bool isReady(std::function<void()> whenReady);
    QueryResult rest();
    void cancel();
    [[nodiscard]] AnswerTotals totals() const;

    /// Whether they are taken at once, since they are all waited for.
    bool add(detail::Packets packets, const AnswerTotals& totals);
    /// The first one counts; `drops` what has not been taken yet.
    void end(std::optional<QueryError> error, bool drops);

    const std::string tried;
    detail::AnswerExchange* exchange = nullptr;  // loop thread only; null when it has finished

  private:
    void waitUntilReady();
    /// The next packets; nothing at the end.
    std::optional<detail::Packets> waitForPackets();
    void tellTaken(const detail::Packets& packets);
    /// Wakes who waits. The result is to be called without the lock.
    [[nodiscard]] std::function<void()> wake();

    const std::shared_ptr<detail::ClientLoop> loop_;

    // The reading thread's: the rows of the packets that were taken last.
    Rows rows_;
    std::size_t place_ = 0;

    std::atomic<bool> isCancelled_{false};

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::deque<detail::Packets> ready_;
    bool takesAll_ = false;  // `ready_` counts only at the end
    bool isEnded_ = false;
    std::optional<QueryError> error_;
    AnswerTotals totals_;
    std::function<void()> whenReady_;
};

/// The loop's side of a stream, which it ends when it is dropped.
class RowStream::Sink final : public detail::AnswerSink {
  public:
    explicit Sink(std::shared_ptr<State> state) : state_(std::move(state)) {}
    ~Sink() override { end(detail::ended(state_->tried)); }

    void filledBy(detail::AnswerExchange* exchange) override { state_->exchange = exchange; }
    std::size_t take(detail::Packets packets, const AnswerTotals& totals) override {
        const std::size_t count = packets.count;
        return state_->add(std::move(packets), totals) ? count : 0;
    }
    void end(std::optional<QueryError> error) override { state_->end(std::move(error), false); }

  private:
    const std::shared_ptr<State> state_;
};

}  // namespace kvx
