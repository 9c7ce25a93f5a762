#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "examples/modeld/service/Answer.h"
#include "examples/modeld/service/HeldQuestions.h"
#include "examples/modeld/store/Store.h"
#include "mom/mom.h"

namespace modeld {

/// Listens on a service's query subject and has the questions answered by a pool of threads, so
/// that a long answer never keeps the bus waiting.
///
/// Only the active member of a group answers. A standby holds what it hears for a while and answers
/// it when it becomes active, so that a question asked while nobody was active is answered late
/// instead of never.
///
/// Built, started and destroyed on the engine's main thread, and destroyed before the engine.
class ModelService : public RvDataCallback {
  public:
    struct Settings {
        std::string database;
        __serv_types type = SERV_MODEL;
        int threads = 2;
        std::string membership;   ///< which group the member stands by in, for the log
        bool standalone = false;  ///< there are no other members to tell anything
    };

    ModelService(CVekEngine& engine, Settings settings);
    ~ModelService() override;
    ModelService(const ModelService&) = delete;
    ModelService& operator=(const ModelService&) = delete;

    /// Opens the database once for every thread and begins to listen. False, with `reason` filled,
    /// when either cannot be done.
    [[nodiscard]] bool start(std::string& reason);

    /// Begins no further answer, and follows the role no longer. Main thread; what is queued then
    /// is all there will be.
    void stopAnswering();

    /// To be called once the main loop runs: takes up the engine's role and follows it.
    void followRole();

    /// What has been done since the start, but for probes, and what waits at this moment.
    struct Statistics {
        std::uint64_t answered = 0;
        std::uint64_t refused = 0;
        std::uint64_t rows = 0;
        int waiting = 0;
    };

    /// Any thread.
    Statistics statistics() const;

    /// The subject that questions come in on, domain included.
    std::string querySubject() const;

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;

  private:
    // Hears which long answers other members have begun.
    class BegunListener : public RvDataCallback {
      public:
        explicit BegunListener(HeldQuestions& held) : held_(held) {}
        void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                    RvListener* listener) override;

      private:
        HeldQuestions& held_;
    };

    [[nodiscard]] bool openStores(std::string& reason);
    void roleChanged(bool active);
    void answerLater(Question question);
    void refuseNow(const Question& question, const std::string& reason);
    static void answerOne(void* item, void* service);
    void answerQuestion(const Question& question);
    void waitForRoomInSendQueue() const;
    std::unique_ptr<Store> borrowStore();
    void returnStore(std::unique_ptr<Store> store);

    CVekEngine& engine_;
    const Settings settings_;
    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    std::atomic<int> waiting_{0};
    std::atomic<std::uint64_t> answered_{0};
    std::atomic<std::uint64_t> refused_{0};
    std::atomic<std::uint64_t> rows_{0};
    std::atomic<bool> stopping_{false};
    SendGate gate_;

    // Main thread only.
    HeldQuestions held_;
    BegunListener begunListener_{held_};

    // Guarded by storesMutex_: connections that no thread uses at the moment.
    std::mutex storesMutex_;
    std::vector<std::unique_ptr<Store>> stores_;

    // Last, so that its threads end before anything they use.
    std::unique_ptr<CVekServPool> pool_;
};

}  // namespace modeld
