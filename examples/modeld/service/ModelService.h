#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "examples/modeld/service/Answer.h"
#include "examples/modeld/store/Store.h"
#include "mom/mom.h"

namespace modeld {

/// Listens on a service's query subject and has the questions answered by a pool of threads, so
/// that a long answer never keeps the bus waiting.
///
/// Built, started and destroyed on the engine's main thread, and destroyed before the engine.
class ModelService : public RvDataCallback {
  public:
    struct Settings {
        std::string database;
        __serv_types type = SERV_MODEL;
        int threads = 2;
    };

    ModelService(CVekEngine& engine, Settings settings);
    ~ModelService() override;
    ModelService(const ModelService&) = delete;
    ModelService& operator=(const ModelService&) = delete;

    /// Opens the database once for every thread and begins to listen. False, with `reason` filled,
    /// when either cannot be done.
    [[nodiscard]] bool start(std::string& reason);

    /// The subject that questions come in on, domain included.
    std::string querySubject() const;

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;

  private:
    static void answerOne(void* item, void* service);
    void answerQuestion(const Question& question);
    void waitForRoomInSendQueue() const;
    std::unique_ptr<Store> borrowStore();
    void returnStore(std::unique_ptr<Store> store);

    CVekEngine& engine_;
    const Settings settings_;
    std::atomic<int> waiting_{0};
    std::atomic<bool> stopping_{false};

    // Guarded by storesMutex_: connections that no thread uses at the moment.
    std::mutex storesMutex_;
    std::vector<std::unique_ptr<Store>> stores_;

    // Last, so that its threads end before anything they use.
    std::unique_ptr<CVekServPool> pool_;
};

}  // namespace modeld
