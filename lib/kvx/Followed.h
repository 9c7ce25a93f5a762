#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "kvx/ClientLoop.h"
#include "kvx/Exchange.h"
#include "kvx/Follow.h"
#include "kvx/FollowState.h"

namespace kvx::detail {

/// How soon a question may follow the one before it: at once, and later and later while questions
/// come close upon one another.
class Pace {
  public:
    using Clock = std::chrono::steady_clock;

    explicit Pace(std::chrono::milliseconds longest) : longest_(longest) {}

    /// The wait before a question that is wanted at `now`.
    std::chrono::milliseconds next(Clock::time_point now);

  private:
    const std::chrono::milliseconds longest_;
    std::chrono::milliseconds wait_{0};
    Clock::time_point due_;  // of the last question
};

/// One follower on the bus: hears notices, asks what its state wants to know, and calls the
/// functions. Loop thread only; shared by its handle and, until it has ended, the loop.
class Followed : public std::enable_shared_from_this<Followed>,
                 private RvDataCallback,
                 private RvTimerCallback,
                 private FollowState::Sink,
                 public ClientLoop::Watcher {
  public:
    struct What {
        std::string tried;  ///< "follow Links"
        std::string querySubject;
        std::string notifySubject;
        std::string text;
        std::chrono::milliseconds timeout;
    };

    Followed(std::shared_ptr<ClientLoop> loop, What what, Follower follower);
    ~Followed() override;
    Followed(const Followed&) = delete;
    Followed& operator=(const Followed&) = delete;

    /// Listens and asks. Why it cannot; nothing when it does.
    std::optional<Errc> start();

    /// Ends it: on the loop thread at once, else when the loop has done it or has ended. No
    /// function is called afterwards. Any thread.
    void end();

    void onConnection(bool isThere) override;
    void onLoopEnd() override;

  private:
    class Collected;

    bool listen(const void* key, const std::string& subject);
    void stop();
    void send();
    void onAnswered(Packets packets, std::optional<QueryError> error);

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;
    void onTimer(RvTimer* timer) override;
    void ask(FollowState::Question question) override;
    void onRow(const Record& row) override;
    void onChange(const Record& change) override;
    void onResynchronised(std::span<const Record> differences) override;
    void onFailure(const Error& error) override;

    const std::shared_ptr<ClientLoop> loop_;
    const What what_;
    const Follower follower_;

    FollowState state_{*this};
    std::optional<FollowState::Question> wanted_;  // not sent yet
    FollowState::Question asked_ = FollowState::Question::Query;
    AnswerExchange* exchange_ = nullptr;
    std::unique_ptr<RvTimer> wait_;
    Pace queries_{std::chrono::seconds(30)};
    Pace histories_{std::chrono::seconds(1)};
    bool isOver_ = false;
};

}  // namespace kvx::detail
