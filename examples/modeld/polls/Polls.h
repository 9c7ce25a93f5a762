#pragma once

#include <memory>
#include <string>
#include <vector>

#include "examples/modeld/polls/FileWatch.h"
#include "examples/modeld/service/ModelService.h"
#include "examples/modeld/store/Store.h"
#include "mom/mom.h"

namespace modeld {

/// What the service does by itself, each thing every so many seconds; 0 for never.
///
/// Built and destroyed on the main thread, and destroyed before the engine and the service.
class Polls {
  public:
    struct Settings {
        std::string database;
        Source source;
        std::string notifySubject;
        int watchSource = 5;
        int statistics = 60;
        int checkpoint = 60;
    };

    /// `watch` knows the files of the source as they were loaded.
    Polls(CVekEngine& engine, const ModelService& service, FileWatch watch,
          const Settings& settings);
    ~Polls();
    Polls(const Polls&) = delete;
    Polls& operator=(const Polls&) = delete;

  private:
    void add(std::unique_ptr<CVekTimedWork> poll);

    // Destroyed from the last to the first: the manager, which ends its threads; what the list of
    // blocked work holds; and the polls, which no worker needs any more.
    std::vector<std::unique_ptr<CVekTimedWork>> polls_;
    std::unique_ptr<CVekBlockedWorkMgr> blockedWork_;
    std::unique_ptr<CVekTimedWorkMgr> manager_;
};

}  // namespace modeld
