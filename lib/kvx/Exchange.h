#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "kvx/Answer.h"
#include "kvx/ClientLoop.h"

namespace kvx::detail {

/// Why the bus refused, by the code of its status.
Errc codeOf(const RvStatus& status);

inline QueryError ended(std::string tried) {
    return {{Errc::Ended, "the client has ended", std::move(tried)}, {}};
}

inline QueryError waitsForItself(std::string tried) {
    return {
        {Errc::InvalidArgument, "a call on the client's own thread cannot wait", std::move(tried)},
        {}};
}

/// What is sent with an inbox as its reply subject, and what comes there, until it has finished or
/// nothing came for the time-out. Owns itself. Loop thread only.
class Exchange : public RvDataCallback, public RvTimerCallback, public ClientLoop::Waiting {
  public:
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;
    ~Exchange() override;

    /// Starts it; on failure it has failed.
    void send(const std::string& subject, const RvMsg& message);

    void onTimer(RvTimer*) override;

  protected:
    /// Nothing came for the time-out.
    virtual void onSilence() { fail(Errc::TimedOut); }

    /// `timeout` is above 0.
    Exchange(ClientLoop& loop, std::string tried, std::chrono::milliseconds timeout);

    void waitAgain() { idle_->resetInterval(interval()); }
    [[nodiscard]] std::string textOf(Errc code) const;
    /// Empty until it is sent.
    [[nodiscard]] std::string inbox() const { return inbox_ ? inbox_->subject() : ""; }
    [[nodiscard]] ClientLoop& loop() const { return loop_; }

    const std::string tried_;

  private:
    [[nodiscard]] unsigned long interval() const;

    const std::chrono::milliseconds timeout_;
    ClientLoop& loop_;
    std::unique_ptr<RvTimer> idle_;
    std::unique_ptr<RvListener> inbox_;
    bool* gone_ = nullptr;  // set by the destructor during a send
};

class AnswerExchange;

/// Where the rows of an answer go. Loop thread only, but for its destruction, which ends it with
/// `Ended` if nothing did.
class AnswerSink {
  public:
    AnswerSink() = default;
    AnswerSink(const AnswerSink&) = delete;
    AnswerSink& operator=(const AnswerSink&) = delete;
    virtual ~AnswerSink() = default;

    /// The exchange that fills it; null when there is none any more.
    virtual void filledBy(AnswerExchange* exchange) { static_cast<void>(exchange); }
    /// How many of the packets are taken at once; those that are not are passed to
    /// `AnswerExchange::took` later.
    virtual std::size_t take(Packets packets, const AnswerTotals& totals) = 0;
    /// Nothing for a whole answer. The last call.
    virtual void end(std::optional<QueryError> error) = 0;
};

/// A question, and the packets of the member that answers it first. Those of another are ignored
/// and told once.
class AnswerExchange : public Exchange {
  public:
    AnswerExchange(ClientLoop& loop, std::string tried, std::chrono::milliseconds timeout,
                   std::shared_ptr<AnswerSink> sink);
    ~AnswerExchange() override;

    /// Asks on `subject`; on failure it has failed.
    void ask(const std::string& subject, RvMsg question);

    /// Packets passed to the sink have been taken, and what they cost is free again. May delete
    /// this.
    void took(std::size_t count, std::size_t cost);

    /// Ends it with `Ended`. Deletes this.
    void cancel();

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;
    void fail(Errc code) override;

  private:
    void onSilence() override;
    void take(const RvDatum& data, const std::string& from);
    void ignore(const RvDatum& data, const std::string& from);
    void grant();
    void finish(std::optional<QueryError> error);
    void finish(Errc code, std::string text);

    const std::shared_ptr<AnswerSink> sink_;
    Answer answer_;
    std::optional<std::string> answerer_;  // its inbox, empty when it has none
    std::size_t granted_;                  // the last packet that may come
    std::size_t passed_ = 0;               // packets, to the sink
    std::size_t taken_ = 0;                // packets, by the sink
    bool hasWarned_ = false;
};

}  // namespace kvx::detail
