#pragma once

#include <memory>
#include <string>
#include <vector>

#include "examples/modeld/polls/FileWatch.h"
#include "examples/modeld/service/ModelService.h"
#include "examples/modeld/store/Store.h"
#include "kvx/Service.h"
#include "mom/mom.h"

namespace modeld {

/// The periodic work of the service; an interval of 0 seconds disables a poll.
///
/// Built and destroyed on the main thread, and destroyed before the services.
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

    /// `watch` has the source files as loaded.
    Polls(kvx::Service& bus, const ModelService& service, FileWatch watch,
          const Settings& settings);
    ~Polls();
    Polls(const Polls&) = delete;
    Polls& operator=(const Polls&) = delete;

  private:
    void add(std::unique_ptr<CVekTimedWork> poll);

    // Destroyed from the last to the first: the manager, which ends its threads; the blocked
    // workers; and the polls, which no worker uses any more.
    std::vector<std::unique_ptr<CVekTimedWork>> polls_;
    std::unique_ptr<CVekBlockedWorkMgr> blockedWork_;
    std::unique_ptr<CVekTimedWorkMgr> manager_;
};

}  // namespace modeld
