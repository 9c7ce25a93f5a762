#include "tools/kvx/ServicesView.h"

#include <fmt/format.h>

#include <utility>

#include "platform/Text.h"
#include "tools/bus/DatumJson.h"
#include "tools/kvx/Rows.h"

namespace kvx::tool {

namespace {

constexpr const char* kRed = "\033[31m";
constexpr const char* kPlain = "\033[0m";

std::vector<std::string> cellsOf(const beats::Service& service, beats::Milliseconds now) {
    const beats::Beat& beat = service.beat;
    const auto& member = service.member;
    const auto group = member ? beats::groupNameOf(member->group, beat.domain) : std::nullopt;
    return {printable(beat.service),
            printable(beat.domain),
            printable(beat.host),
            std::to_string(beat.pid),
            group ? printable(group->base) : "-",
            group ? std::to_string(group->tier) : "-",
            beats::roleOf(service),
            member ? fmt::format("{}{} s", member->isRoleSeen ? "" : "> ",
                                 (now - member->roleSince) / 1000)
                   : "-",
            fmt::format("{} s", service.age(now) / 1000),
            std::to_string(service.missed(now))};
}

}  // namespace

std::vector<std::string> serviceLines(const std::vector<beats::Service>& services,
                                      beats::Milliseconds now, Colour colour) {
    std::vector<std::vector<std::string>> rows = {
        {"SERVICE", "DOMAIN", "HOST", "PID", "GROUP", "TIER", "ROLE", "FOR", "AGE", "MISSED"}};
    for (const auto& service : services) rows.push_back(cellsOf(service, now));
    std::vector<std::string> lines = alignedLines(rows);
    for (std::size_t i = 0; colour == Colour::Missing && i < services.size(); ++i) {
        if (services[i].isSilent(now)) lines[i + 1] = kRed + lines[i + 1] + kPlain;
    }
    return lines;
}

std::vector<std::string> fittingLines(std::vector<std::string> lines, std::size_t height) {
    // The cursor takes the last line of the screen.
    if (height < 3 || lines.size() < height) return lines;
    const std::size_t leftOut = lines.size() - (height - 2);
    lines.resize(height - 2);
    lines.push_back(fmt::format("... and {} more", leftOut));
    return lines;
}

std::vector<std::string> answerLines(const std::vector<Answer>& answers) {
    if (answers.empty()) return {};
    std::vector<std::vector<std::string>> rows = {{"SERVICE", "ANSWER", "QUERY SUBJECT"}};
    for (const auto& answer : answers) {
        rows.push_back(
            {answer.service, fmt::format("{:.1f} ms", answer.milliseconds), answer.subject});
    }
    return alignedLines(rows);
}

std::string answerAsJson(const Answer& answer) {
    std::vector<std::string> answerers;
    for (const auto& inbox : answer.answerers) answerers.push_back(bus::jsonString(inbox));
    return fmt::format(R"({{"service":{},"subject":{},"milliseconds":{:.1f},"answerers":[{}]}})",
                       bus::jsonString(answer.service), bus::jsonString(answer.subject),
                       answer.milliseconds, fmt::join(answerers, ","));
}

std::string warningOf(const Answer& answer) {
    const std::size_t count = answer.answerers.size();
    return fmt::format("warning: {} answer on {}: {}", count == 2 ? "two" : std::to_string(count),
                       answer.subject, fmt::join(answer.answerers, ", "));
}

std::vector<std::size_t> ServiceChanges::since(const std::vector<beats::Service>& services,
                                               beats::Milliseconds now) {
    std::vector<std::size_t> changed;
    std::map<Key, State> present;
    for (std::size_t i = 0; i < services.size(); ++i) {
        const beats::Beat& beat = services[i].beat;
        const Key key{beat.service, beat.domain, beat.host, beat.pid};
        const State state{services[i].isSilent(now), services[i].isPrimary()};
        const auto before = last_.find(key);
        if (before == last_.end() || before->second != state) changed.push_back(i);
        present.emplace(key, state);
    }
    last_ = std::move(present);
    return changed;
}

}  // namespace kvx::tool
