#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "tools/kvx/Query.h"

namespace kvx::tool {

/// A service that answered on its query subject, and after how long.
struct Answer {
    std::string service;
    std::string subject;
    double milliseconds = 0;
};

/// Asks every service's query subject one harmless question; whoever answers, with rows or with a
/// refusal, is there. Main thread only.
class AnswerProbe {
  public:
    /// `net` must outlive this object. An answer counts when it is complete within `waitMs`.
    AnswerProbe(CVekRvNet& net, unsigned long waitMs);

    /// Asks, once the main loop runs.
    void ask();

    /// Who has answered so far, in the order of the service names' table.
    std::vector<Answer> answers() const;

  private:
    using Clock = std::chrono::steady_clock;
    struct Probe {
        Answer answer;
        std::unique_ptr<Query> query;
    };

    void add(CVekRvNet& net, const char* name, const char* subject, unsigned long waitMs);

    std::deque<Probe> probes_;  // a deque, since the queries' callbacks point into it
    Clock::time_point begin_;
};

}  // namespace kvx::tool
