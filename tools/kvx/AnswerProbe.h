#pragma once

#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "mom/mom.h"
#include "tools/kvx/ServicesView.h"

namespace kvx::tool {

/// Sends one harmless query to the query subject of each service; any answer, rows or a refusal,
/// counts, and every member that gives one. Main thread only, while the main loop runs.
class AnswerProbe {
  public:
    /// `net` must outlive this object.
    explicit AnswerProbe(CVekRvNet& net);
    ~AnswerProbe();
    AnswerProbe(const AnswerProbe&) = delete;
    AnswerProbe& operator=(const AnswerProbe&) = delete;

    /// Asks all services of the system's table.
    void askAll();
    /// Asks one, unless its subject has been asked, or 1,000 have been.
    void ask(const std::string& service);

    /// The services that have answered so far, in the order of asking.
    [[nodiscard]] std::vector<Answer> answers() const;

  private:
    class Question;

    CVekRvNet& net_;
    std::set<std::string> subjects_;
    std::deque<std::unique_ptr<Question>> questions_;
};

}  // namespace kvx::tool
