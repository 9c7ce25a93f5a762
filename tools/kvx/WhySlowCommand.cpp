// kvx why-slow: who holds up messages, since when, how much waits and was lost, and what to do.

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/Text.h"
#include "tools/bus/Output.h"
#include "tools/kvx/DaemonAnswers.h"
#include "tools/kvx/DaemonView.h"

namespace kvx::tool {

namespace {

// Longer than it takes to hand over a burst.
constexpr std::uint64_t kBurstMs = 3000;

bool isBehind(const Json& session) {
    return session.contains("behind_ms");
}

// Loses messages already, or goes on towards it.
bool isSlow(const Json& session) {
    return isBehind(session) || numberIn(session, "waiting_ms") >= kBurstMs;
}

std::string headline(const Json& session) {
    const std::string who = fmt::format("{} ({}, number {})", whoIs(session),
                                        textIn(session, "address"), numberIn(session, "number"));
    if (isBehind(session)) {
        return fmt::format("{} does not keep up since {}", who,
                           spanText(numberIn(session, "behind_ms")));
    }
    if (isSlow(session)) {
        return fmt::format("{} has messages waiting since {}, and loses none now", who,
                           spanText(numberIn(session, "waiting_ms")));
    }
    if (numberIn(session, "waiting") != 0) return who + " has messages waiting, and loses none";
    return who + " keeps up now, but has lost messages";
}

// What its user can do about it.
std::string adviceFor(const Json& session) {
    if (isSlow(session) && numberIn(session, "delivered_rate") == 0) {
        return "it reads nothing: is its process stopped, or blocked in a callback? "
               "Messages wait until it reads again; when its queue is full the oldest are dropped";
    }
    if (isSlow(session)) {
        return "it reads too slowly: do less in its callbacks, listen to less, or share the work "
               "among several processes; a larger -queue-limit only buys time";
    }
    if (numberIn(session, "waiting") != 0) return "a burst, or the beginning: ask again";
    if (numberIn(session, "dropped_memory") != 0) {
        return "the memory of the daemon was full: see its -memory, and who holds most of it";
    }
    return "it was too slow for a burst: a larger -queue-limit would have held it";
}

void printSession(const Json& session, const Json& status) {
    bus::printLine(printable(headline(session)));
    bus::printLine(
        fmt::format("  takes       {} messages/s", countText(numberIn(session, "delivered_rate"))));
    bus::printLine(fmt::format(
        "  waiting     {} messages, {} of {}", countText(numberIn(session, "waiting")),
        bytesText(realIn(session, "waiting_bytes")), bytesText(realIn(status, "queue_limit"))));
    const std::string last =
        session.contains("loss_age_ms")
            ? fmt::format(", the last {} ago", spanText(numberIn(session, "loss_age_ms")))
            : "";
    bus::printLine(fmt::format("  lost        {}{}", lossText(session), last));
    bus::printLine("  what to do  " + adviceFor(session));
}

// Those who are behind first, the longest at the top; then by what waits.
std::vector<Json> slowOnes(const Json& sessions, const std::set<std::uint64_t>* wanted) {
    std::vector<Json> slow;
    for (const auto& session : sessions) {
        if (wanted != nullptr && !wanted->contains(numberIn(session, "number"))) continue;
        if (isBehind(session) || numberIn(session, "waiting") != 0 ||
            session.contains("loss_age_ms")) {
            slow.push_back(session);
        }
    }
    std::ranges::stable_sort(slow, std::greater(), [](const Json& session) {
        return std::pair(numberIn(session, "behind_ms"), numberIn(session, "waiting_bytes"));
    });
    return slow;
}

}  // namespace

int whySlow(const DaemonOptions& options) {
    std::vector<AskedOfDaemon> questions = {{bus::kStatusSubject}, {bus::kSessionsSubject}};
    if (!options.subject.empty()) questions.push_back({bus::kTraceSubject, options.subject});
    return askDaemon(options, questions, [&options](const auto& answers) {
        std::set<std::uint64_t> wanted;
        if (answers.size() > 2) {
            for (const auto& match : rowsIn(answers[2], "match")) {
                wanted.insert(numberIn(match, "session"));
            }
        }
        auto slow = slowOnes(rowsIn(answers[1], "session"), answers.size() > 2 ? &wanted : nullptr);
        for (auto& session : slow) {
            session["advice"] = adviceFor(session);
            options.connection.json ? printRows(Json::array({session}))
                                    : printSession(session, answers[0]);
        }
        if (slow.empty() && !options.connection.json) {
            bus::printLine(wanted.empty() && !options.subject.empty()
                               ? fmt::format("nobody listens to {}", options.subject)
                               : "nobody is slow: nothing waits, and nothing was lost");
        }
        return kSuccess;
    });
}

}  // namespace kvx::tool
