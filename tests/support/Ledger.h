#pragma once

#include <cstdint>
#include <map>
#include <sstream>
#include <string>

namespace kvx::test {

/// The last counters in a daemon's log; empty without that line. Those not named are 0.
inline std::map<std::string, std::uint64_t> countersIn(const std::string& log) {
    std::map<std::string, std::uint64_t> counters;
    const std::size_t line = log.rfind("counted:");
    if (line == std::string::npos) return counters;
    std::istringstream words(log.substr(line, log.find('\n', line) - line));
    std::string word;
    for (words >> word; words >> word;) {
        const std::size_t equal = word.find('=');
        counters[word.substr(0, equal)] = std::stoull(word.substr(equal + 1));
    }
    return counters;
}

/// The law of a daemon: every copy that was due is delivered, counted as dropped, or waits. Returns
/// an empty text, or what is wrong.
inline std::string brokenLaw(const std::string& log) {
    auto counters = countersIn(log);
    if (log.find("counted:") == std::string::npos) return "no counters: " + log;
    std::uint64_t accounted = counters["messages.delivered"] + counters["messages.waiting"];
    for (const char* cause : {"queue", "memory", "ended", "shutdown"}) {
        accounted += counters[std::string("dropped.") + cause];
    }
    if (accounted == counters["messages.matched"]) return {};
    return "copies matched and copies accounted for differ: " + log;
}

}  // namespace kvx::test
