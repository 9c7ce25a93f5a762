#include "rva/DaemonWatch.h"

#include <utility>

#include "platform/Clock.h"
#include "tools/bus/Complain.h"

namespace kvx::rva {

namespace {

constexpr double kTimeoutSeconds = 5;
constexpr unsigned long kAtOnceMs = 1;

}  // namespace

DaemonWatch::DaemonWatch(CVekRvNet& net, unsigned intervalSeconds, Publish publish)
    : net_(net),
      publish_(std::move(publish)),
      status_(
          net, bus::kStatusSubject,
          [this](const auto& answer, const auto& error) { take(Topic::Status, answer, error); }),
      sessions_(
          net, bus::kSessionsSubject,
          [this](const auto& answer, const auto& error) { take(Topic::Sessions, answer, error); }),
      subjects_(
          net, bus::kSubjectsSubject,
          [this](const auto& answer, const auto& error) { take(Topic::Subjects, answer, error); }),
      ticker_(net, 1'000UL * intervalSeconds, bus::Ticker::Repeat::Forever, [this] { ask(); }) {
    ask();
}

void DaemonWatch::lose() {
    isLost_ = true;
    figures_.lose();
    publish_(figures_, true);
}

void DaemonWatch::gain() {
    isLost_ = false;
    // Not within the hook of the session.
    soon_.emplace(net_, kAtOnceMs, bus::Ticker::Repeat::Once, [this] { ask(); });
}

void DaemonWatch::ask() {
    if (isLost_) return;
    for (const auto& [topic, question] :
         {std::pair(Topic::Status, &status_), std::pair(Topic::Sessions, &sessions_),
          std::pair(Topic::Subjects, &subjects_)}) {
        if (question->isWaiting()) continue;
        figures_.ask(topic);
        question->ask(RvMsg(), kTimeoutSeconds);
    }
    publish_(figures_, false);
}

void DaemonWatch::take(Topic topic, const Json& answer, const std::string& error) {
    if (isLost_) return;
    const Answering before = figures_.state(topic).how;
    if (error.empty()) {
        figures_.take(topic, answer, platform::monotonicMs());
    } else {
        figures_.miss(topic, answer.contains("error") ? Answering::Refuses : Answering::Silent);
    }
    if (topic == Topic::Status) tell(before, error);
    publish_(figures_, topic == Topic::Status);
}

void DaemonWatch::tell(Answering before, const std::string& error) const {
    const Answering now = figures_.state(Topic::Status).how;
    if (now == before) return;
    if (now != Answering::Answers) {
        bus::complain("no figures of the daemon: " + error);
    } else if (before == Answering::Silent || before == Answering::Refuses) {
        bus::complain("the daemon answers about itself");
    }
}

}  // namespace kvx::rva
