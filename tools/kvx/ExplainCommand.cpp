// kvx explain: what a code, an advisory or a line of a log means. It needs no bus.

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/Explanations.h"
#include "tools/kvx/Nearest.h"

namespace kvx::tool {

namespace {

std::string asJson(const Explanation& one) {
    const nlohmann::ordered_json code =
        one.code.empty() ? nullptr : nlohmann::ordered_json(std::stoi(one.code));
    return nlohmann::ordered_json{{"kind", one.kind}, {"code", code},   {"name", one.name},
                                  {"text", one.text}, {"why", one.why}, {"mend", one.mend}}
        .dump();
}

// "session code 22, kNotConnected: The daemon is not connected"
std::string headingOf(const Explanation& one) {
    std::string line = one.kind;
    if (!one.code.empty()) line += " " + one.code;
    if (!one.name.empty()) line += (one.code.empty() ? " " : ", ") + one.name;
    if (!one.text.empty() && !one.name.ends_with(one.text)) line += ": " + one.text;
    return line;
}

void printInFull(const Explanations& found) {
    for (const Explanation& one : found) {
        if (&one != &found.front()) bus::printLine("");
        bus::printLine(headingOf(one));
        bus::printLine("  why   " + one.why);
        bus::printLine("  mend  " + one.mend);
    }
}

void printList(const Explanations& all) {
    std::size_t width = 0;
    for (const Explanation& one : all) {
        if (!one.code.empty()) width = std::max(width, one.name.size());
    }
    std::string kind;
    for (const Explanation& one : all) {
        if (one.kind != kind) bus::printLine((kind.empty() ? "" : "\n") + one.kind);
        kind = one.kind;
        if (one.code.empty()) {
            bus::printLine("  " + (one.name.empty() ? one.text : one.name));
        } else {
            const std::string line =
                fmt::format("  {:>7}  {:{}}  {}", one.code, one.name, width, one.text);
            bus::printLine(line.substr(0, line.find_last_not_of(' ') + 1));
        }
    }
    bus::printLine("\n\"kvx explain\" with a number, a name or a text tells why, and what to do.");
}

std::string joined(const std::vector<std::string>& words) {
    return fmt::format("{}", fmt::join(words, " "));
}

}  // namespace

int explain(const ExplainOptions& options) {
    const std::string words = joined(options.words);
    const Explanations found = options.words.empty() ? allExplanations() : explanationsOf(words);
    if (found.empty()) {
        bus::complain(fmt::format("nothing is known of {}{}", quoted(words),
                                  suggestion(words, explainableWords())));
        return kFailure;
    }
    if (options.connection.json) {
        for (const Explanation& one : found) bus::printLine(asJson(one));
    } else {
        options.words.empty() ? printList(found) : printInFull(found);
    }
    return kSuccess;
}

}  // namespace kvx::tool
