#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "examples/modeld/service/Answer.h"
#include "examples/modeld/store/Store.h"
#include "kvx/HeldQuestions.h"
#include "mom/mom.h"

namespace modeld {

/// Listens on a service's query subject and answers the questions on a pool of threads, so that a
/// long answer never blocks the bus.
///
/// Only the active member of a group answers. A standby holds questions for a while and answers
/// them when it becomes active, so that a question sent during a take-over is answered late, not
/// never.
///
/// Built, started and destroyed on the engine's main thread, and destroyed before the engine.
class ModelService : public RvDataCallback {
  public:
    struct Settings {
        std::string database;
        __serv_types type = SERV_MODEL;
        int threads = 2;
        std::string membership;   ///< the group and tier, for the log
        bool standalone = false;  ///< no group, and so no notices to other members
    };

    ModelService(CVekEngine& engine, Settings settings);
    ~ModelService() override;
    ModelService(const ModelService&) = delete;
    ModelService& operator=(const ModelService&) = delete;

    /// Opens the database once for every thread and begins to listen. False, with `reason` set, on
    /// failure.
    [[nodiscard]] bool start(std::string& reason);

    /// Begins no further answer, and stops following the role. Nothing is queued after it returns.
    /// Main thread.
    void stopAnswering();

    /// Takes the engine's role and follows it. Call it once the main loop runs.
    void followRole();

    /// Totals since the start, without probes, and the current queue lengths.
    struct Statistics {
        std::uint64_t answered = 0;
        std::uint64_t refused = 0;
        std::uint64_t rows = 0;
        int waiting = 0;
    };

    /// Any thread.
    Statistics statistics() const;

    /// The query subject, domain included.
    std::string querySubject() const;

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;

  private:
    // Receives the notices of long answers of other members.
    class BegunListener : public RvDataCallback {
      public:
        explicit BegunListener(kvx::HeldQuestions<Question>& held) : held_(held) {}
        void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                    RvListener* listener) override;

      private:
        kvx::HeldQuestions<Question>& held_;
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
    kvx::HeldQuestions<Question> held_;
    BegunListener begunListener_{held_};

    // Guarded by storesMutex_: connections not in use.
    std::mutex storesMutex_;
    std::vector<std::unique_ptr<Store>> stores_;

    // Last, so that its threads end before the members they use are destroyed.
    std::unique_ptr<CVekServPool> pool_;
};

}  // namespace modeld
