#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "kvx/Answers.h"
#include "kvx/Changes.h"
#include "kvx/HeldQuestions.h"
#include "kvx/QuestionPool.h"
#include "kvx/ReplyState.h"
#include "kvx/Service.h"
#include "mom/mom.h"

namespace kvx {

/// The part of a service that hears questions and has them answered, or holds them for the time
/// when this member is active. Main thread, unless stated otherwise.
class Service::Answering : private RvDataCallback {
  public:
    /// All of them must outlive this object. `isNumbered`: answers may name changes.
    Answering(CVekEngine& engine, const Options& options, const Changes& changes,
              const std::atomic<bool>& isNumbered)
        : engine_(engine), options_(options), changes_(changes), isNumbered_(isNumbered) {}
    ~Answering() override { end(); }
    Answering(const Answering&) = delete;
    Answering& operator=(const Answering&) = delete;

    /// Makes it able to send. False when the bus refuses.
    [[nodiscard]] bool open();

    /// Has questions on `querySubject` answered by `answer`. False when the bus refuses.
    [[nodiscard]] bool start(const std::string& querySubject,
                             std::function<void(const Question&, Reply&)> answer);

    /// What was held is answered once this member may act, which is a little after it is active.
    void takeHeld();

    /// No further question is answered, and what has not begun to leave is dropped. False when
    /// that was so already.
    bool beginEnding();
    [[nodiscard]] bool isEnding() const { return isEnding_; }

    /// Whether answers are on their way.
    [[nodiscard]] bool isLeaving() const { return answers_.isLeaving(); }

    /// Their queriers are out of reach.
    void dropAnswers() { answers_.endAll(); }

    /// Drops all answers and waits for the functions that make them.
    void end();

    /// Any thread.
    [[nodiscard]] Statistics statistics() const;

  private:
    // Hears which long answers other members have begun.
    class BegunListener : public RvDataCallback {
      public:
        explicit BegunListener(HeldQuestions<detail::Asked>& held) : held_(held) {}
        void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                    RvListener* listener) override;

      private:
        HeldQuestions<detail::Asked>& held_;
    };

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;
    void take(const char* subject, const RvSender& replyTo, const RvDatum& data,
              RvListener* listener);
    void startPool();
    [[nodiscard]] bool isActing();
    void answerOrHold(detail::Asked asked);
    void answerLater(const detail::Asked& asked);
    void refuse(const detail::Asked& asked, const char* why);
    // Any thread.
    [[nodiscard]] int packetsWaiting();
    void waitForRoom();
    void answerQuestion(const detail::Asked& asked, const Reply::State::Worker* worker);
    void answerHistory(const Stamp& since, Reply::State& state) const;

    CVekEngine& engine_;
    const Options& options_;
    const Changes& changes_;
    const std::atomic<bool>& isNumbered_;

    // Constant after the start.
    std::string begunSubject_;
    std::function<void(const Question&, Reply&)> answer_;

    // Main thread only.
    HeldQuestions<detail::Asked> held_;
    BegunListener begunListener_{held_};

    std::atomic<bool> isEnding_{false};
    std::atomic<std::uint64_t> answered_{0};
    std::atomic<std::uint64_t> takenFromHeld_{0};
    std::atomic<std::uint64_t> refused_{0};

    detail::Answers answers_{engine_, options_.patience};
    std::optional<detail::Packer> packer_;
    std::optional<detail::QuestionPool> pool_;  // its threads end before anything they use
};

}  // namespace kvx
