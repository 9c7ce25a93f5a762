#pragma once

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "tools/beats/BeatTable.h"

namespace kvx::tool {

/// Whether services with missing beats are shown in red.
enum class Colour { Never, Missing };

/// The table of services as lines, the heading first; line i + 1 is the i-th service's.
std::vector<std::string> serviceLines(const std::vector<beats::Service>& services,
                                      beats::Milliseconds now, Colour colour);

/// `lines`, or as many from the top as fit a screen of `height` lines, and the number left out. A
/// height of 0 is unknown and cuts nothing.
std::vector<std::string> fittingLines(std::vector<std::string> lines, std::size_t height);

/// A service that answered on its query subject, and the time it took.
struct Answer {
    std::string service;
    std::string subject;
    double milliseconds = 0;
    /// The inboxes of the members that answered; "-" for one without.
    std::vector<std::string> answerers;
};

/// The table of answering services as lines, the heading first; none without an answer.
std::vector<std::string> answerLines(const std::vector<Answer>& answers);

std::string answerAsJson(const Answer& answer);

/// "warning: two answer on SUBJECT: INBOX, INBOX", of an answer with several answerers.
std::string warningOf(const Answer& answer);

/// Finds the services that have changed since the last call: new, silent, back, or with another
/// role.
class ServiceChanges {
  public:
    /// The positions in `services` of those that changed.
    std::vector<std::size_t> since(const std::vector<beats::Service>& services,
                                   beats::Milliseconds now);

  private:
    using Key = std::tuple<std::string, std::string, std::string, std::int64_t>;
    struct State {
        bool silent = false;
        bool isPrimary = false;
        bool operator==(const State&) const = default;
    };

    std::map<Key, State> last_;
};

}  // namespace kvx::tool
