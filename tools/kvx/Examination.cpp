// A thread watches the time: a check may wait in the resolver or in the library, where nothing else
// could end it.

#include "tools/kvx/Examination.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "platform/Process.h"
#include "platform/Text.h"
#include "tools/bus/Output.h"
#include "tools/kvx/DaemonAnswers.h"

namespace kvx::tool {

namespace {

constexpr platform::Milliseconds kOutputWait = 500;

constexpr const char* kStartDaemon = "KVX_START_DAEMON";

bool mayStartDaemons() {
    const char* const wish = std::getenv(kStartDaemon);
    return wish == nullptr || std::string_view(wish) != "0";
}

const char* wordOf(Finding::State state) {
    switch (state) {
        case Finding::State::Ok:
            return "OK";
        case Finding::State::Warning:
            return "WARN";
        case Finding::State::Failure:
            return "FAIL";
    }
    return "";
}

}  // namespace

Examination::Examination(const DoctorOptions& given)
    : options(given), startsDaemons(mayStartDaemons()), address(given.connection) {
    ::setenv(kStartDaemon, "0", 1);
    watcher_ = std::thread([this] { watch(); });
}

Examination::~Examination() {
    {
        const std::lock_guard guard(lock_);
        isOver_ = true;
    }
    changed_.notify_all();
    watcher_.join();
}

void Examination::begin(const char* check, Milliseconds limit) {
    const std::lock_guard guard(lock_);
    check_ = check;
    expected_ = {check_, Finding::State::Failure,
                 fmt::format("takes longer than {:g} s; what follows is not examined",
                             static_cast<double>(limit) / 1000),
                 "try again, or with a longer --timeout"};
    endsAt_ = platform::monotonicMs() + limit;
    changed_.notify_all();
}

void Examination::expect(std::string text, std::string mend) {
    const std::lock_guard guard(lock_);
    expected_.text = std::move(text);
    expected_.mend = std::move(mend);
}

void Examination::ok(std::string text) {
    tell({check_, Finding::State::Ok, std::move(text), {}});
}

void Examination::warn(std::string text, std::string mend) {
    tell({check_, Finding::State::Warning, std::move(text), std::move(mend)});
}

void Examination::fail(std::string text, std::string mend) {
    tell({check_, Finding::State::Failure, std::move(text), std::move(mend)});
}

int Examination::exitStatus() const {
    return hasFailed_ ? kFailure : kSuccess;
}

Examination::Milliseconds Examination::timeout() const {
    return static_cast<Milliseconds>(options.timeoutSeconds * 1000);
}

void Examination::tell(const Finding& finding) {
    const std::lock_guard guard(lock_);
    if (finding.state == Finding::State::Failure) hasFailed_ = true;
    print(finding);
}

void Examination::print(const Finding& finding) const {
    const char* const word = wordOf(finding.state);
    if (options.connection.json) {
        return printRows(bus::Json::array({{{"check", finding.check},
                                            {"state", word},
                                            {"text", finding.text},
                                            {"mend", finding.mend}}}));
    }
    std::string line = fmt::format("{:<4}  {:<13}  {}", word, finding.check, finding.text);
    if (!finding.mend.empty()) line += "; mend: " + finding.mend;
    bus::printLine(printable(line));
}

void Examination::watch() {
    std::unique_lock guard(lock_);
    while (!isOver_) {
        const Milliseconds now = platform::monotonicMs();
        if (endsAt_ == 0) {
            changed_.wait(guard);
        } else if (now < endsAt_) {
            changed_.wait_for(guard, std::chrono::milliseconds(endsAt_ - now));
        } else {
            print(expected_);
            int status = kFailure;
            static_cast<void>(bus::tryCloseOutput(status, kOutputWait));
            platform::exitNow(kFailure);
        }
    }
}

}  // namespace kvx::tool
