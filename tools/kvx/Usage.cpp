#include "tools/kvx/Usage.h"

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <numeric>
#include <utility>
#include <vector>

#include "platform/Text.h"

namespace kvx::tool {

namespace {

constexpr std::size_t kLongestWord = 60;  // bytes shown of a word that is wrong

std::string quoted(const std::string& word) {
    return "'" + shortened(word, kLongestWord) + "'";
}

// How many characters must be added, removed or replaced to make one text of the other.
std::size_t distance(const std::string& one, const std::string& other) {
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < other.size(); ++j) {
            const std::size_t replaced = diagonal + (one[i] == other[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

// "; did you mean '...'?" of the known word that is most like `word`.
std::string suggestion(const std::string& word, const std::vector<std::string>& known) {
    const std::string start = word.substr(0, kLongestWord);
    const auto nearest =
        std::min_element(known.begin(), known.end(), [&](const auto& one, const auto& other) {
            return distance(start, one) < distance(start, other);
        });
    return nearest == known.end() ? "" : fmt::format("; did you mean '{}'?", *nearest);
}

void addOptionNames(const CLI::App& app, std::vector<std::string>& names) {
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
}

std::string unknownOption(const CLI::App& app, const CLI::App* command, const std::string& word) {
    std::vector<std::string> known;
    addOptionNames(app, known);
    if (command != nullptr) addOptionNames(*command, known);
    const std::string name = word.substr(0, word.find('='));
    return fmt::format("unknown option {}{}", quoted(name), suggestion(name, known));
}

bool isOption(const std::string& word) {
    return word.size() > 1 && word.front() == '-';
}

}  // namespace

std::string unknownCommand(const CLI::App& app, const std::string& word) {
    std::vector<std::string> known;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        known.push_back(command->get_name());
    }
    return fmt::format("unknown command {}{}", quoted(word), suggestion(word, known));
}

std::string usageProblem(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> strange = app.remaining(true);
    const auto chosen = app.get_subcommands();
    const CLI::App* const command = chosen.empty() ? nullptr : chosen.front();
    const auto option = std::find_if(strange.begin(), strange.end(), isOption);
    if (option != strange.end()) return unknownOption(app, command, *option);
    if (command == nullptr && !strange.empty()) return unknownCommand(app, strange.front());
    if (command == nullptr && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
        return "a command is missing; \"kvx help\" lists them";
    }
    if (!strange.empty()) return fmt::format("{} is one word too many", quoted(strange.front()));
    return error.what();
}

std::string problemWithCount(const std::string& text, std::uint64_t least) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isWhole = error == std::errc() && end == text.data() + text.size();
    if (isWhole && number >= least) return {};
    return fmt::format("{} is no whole number of at least {}", quoted(text), least);
}

std::string problemWithSeconds(const std::string& text, double least, double most) {
    double seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    if (isNumber && seconds >= least && seconds <= most) return {};  // "nan" is a number, too
    return fmt::format("{} is not between {:g} and {:g} seconds", quoted(text), least, most);
}

}  // namespace kvx::tool
