// The answers that a service is giving. The thread that answers adds packets; the main thread sends
// them in turn, one of each answer, as far as the querier of each lets them come. So a small answer
// passes the large ones, an answer to nobody costs its first window, and what is made ahead is
// bounded: whoever makes it waits.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kvx/Conversation.h"
#include "mom/mom.h"

namespace kvx::detail {

class Answers;

/// One answer on its way. The thread that answers, unless stated otherwise.
class OpenAnswer : public std::enable_shared_from_this<OpenAnswer> {
  public:
    OpenAnswer(Answers& owner, std::string replySubject, std::optional<std::uint32_t> window);
    OpenAnswer(const OpenAnswer&) = delete;
    OpenAnswer& operator=(const OpenAnswer&) = delete;

    /// Whether its packets are sent as they come, with the count in the last one only; else all
    /// come at the end, each with the count.
    [[nodiscard]] bool isStreamed() const { return isStreamed_; }

    /// Whether somebody still waits for it. Any thread.
    [[nodiscard]] bool isWanted() const;

    /// Adds the next packets; the last ones finish it. Never waits.
    void add(std::vector<std::unique_ptr<RvMsg>> packets, bool areLast);

    /// Ends it.
    void drop();

    /// Whether it is as far ahead of its querier as it may be.
    [[nodiscard]] bool isFull() const;

    /// Waits until it is half as far, or is wanted no longer.
    void waitForRoom();

  private:
    friend class Answers;
    class Item;

    [[nodiscard]] bool hasRoom(std::size_t most) const;
    [[nodiscard]] bool maySend() const { return !packets_.empty() && sent_ < allowed_; }

    Answers& owner_;
    const std::string replySubject_;
    const bool isStreamed_;

    // Guarded by the mutex of `owner_`.
    std::condition_variable changed_;
    std::deque<std::unique_ptr<RvMsg>> packets_;
    std::uint32_t sent_ = 0;
    std::uint32_t allowed_;
    bool isTaken_ = false;                         // its querier has been heard
    std::chrono::steady_clock::time_point moved_;  // when it last went on, or was let
    bool isReady_ = false;                         // it is in the ring
    bool isFinished_ = false;
    bool isEnded_ = false;
};

/// The answers of one service. Built and destroyed on the main thread; no thread may be answering
/// when it is destroyed.
class Answers : private RvDataCallback, private RvTimerCallback {
  public:
    /// Packets that are made ahead of what a querier takes. Before it has taken anything no more
    /// are made than it may be sent, since it may be gone.
    static constexpr std::size_t kMostAhead = 32;
    /// How often it looks for answers that nobody takes.
    static constexpr std::chrono::milliseconds kLook{100};
    /// A querier that has taken nothing for so long gives way when others wait for a place.
    static constexpr std::chrono::milliseconds kGivesWay{500};

    /// An answer of which nothing is taken for `patience` is ended.
    Answers(CVekEngine& engine, std::chrono::milliseconds patience)
        : engine_(engine), patience_(patience) {}
    ~Answers() override;
    Answers(const Answers&) = delete;
    Answers& operator=(const Answers&) = delete;

    /// Begins to send. False, with nothing begun, when the bus refuses. Main thread.
    [[nodiscard]] bool start();

    /// The answer to a question from `replySubject`. Any thread.
    std::shared_ptr<OpenAnswer> begin(std::string replySubject,
                                      std::optional<std::uint32_t> window);

    /// Called every `kLook` on the main thread; whether questions wait for the place of an answer,
    /// or are refused.
    std::function<bool()> isCrowded;

    /// Ends all: nothing of them is sent any more. Any thread.
    void endAll();

    /// The same, and whatever begins afterwards has ended too. Any thread.
    void close();

    /// Ends those of which nothing has left and that are not finished. Any thread.
    void endUnbegun();

    /// Whether there are others. Any thread.
    [[nodiscard]] bool isLeaving() const;

    /// Packets that wait to be sent. Any thread.
    [[nodiscard]] std::size_t packets() const;

    /// Answers that were ended because nobody took them. Any thread.
    [[nodiscard]] std::uint64_t abandoned() const;

  private:
    friend class OpenAnswer;

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;
    void onTake(const RvDatum& data);
    void onTimer(RvTimer* timer) override;
    std::unique_ptr<CVekSendQueueItem> next();
    bool makeReady(OpenAnswer& answer);
    void end(OpenAnswer& answer);
    void forget(const OpenAnswer& answer);

    CVekEngine& engine_;
    const std::chrono::milliseconds patience_;

    // Main thread only.
    std::unique_ptr<RvListener> inbox_;
    std::unique_ptr<RvTimer> look_;
    std::chrono::steady_clock::time_point looked_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::list<std::shared_ptr<OpenAnswer>> open_;
    std::deque<std::shared_ptr<OpenAnswer>> ready_;  // those that may send, in turn
    std::size_t packets_ = 0;
    std::uint64_t abandoned_ = 0;
    bool isClosed_ = false;
};

}  // namespace kvx::detail
