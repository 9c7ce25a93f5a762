#include "commandline/Parse.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

#include "platform/CommandLine.h"

namespace kvx::commandline {

namespace {

// The arguments as the parser takes them, the last one first. The word after an option with a value
// is its value, whatever it looks like.
std::vector<std::string> withTwoDashes(const CLI::App& app, int argc, const char* const* argv) {
    std::vector<std::string> words;
    bool isValue = false;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        const bool hasOneDash = word.size() > 2 && word[0] == '-' && word[1] != '-';
        const std::string name = (hasOneDash ? "-" : "") + word.substr(0, word.find('='));
        const CLI::Option* const option =
            isValue || !name.starts_with("--") ? nullptr : app.get_option_no_throw(name);
        if (option != nullptr && hasOneDash) word.insert(0, 1, '-');
        isValue = option != nullptr && option->get_items_expected_min() > 0 &&
                  word.find('=') == std::string::npos;
        words.push_back(std::move(word));
    }
    std::ranges::reverse(words);
    return words;
}

}  // namespace

std::optional<int> parse(CLI::App& app, int argc, const char* const* argv,
                         const std::function<std::string(const std::string&)>& shown) {
    try {
        app.parse(withTwoDashes(app, argc, argv));
    } catch (const CLI::ParseError& error) {
        std::ostringstream out;
        std::ostringstream ignored;
        if (app.exit(error, out, ignored) == 0) return platform::answer(app.get_name(), out.str());
        const std::string text = error.what();
        return platform::refuse(
            app.get_name(), (shown ? shown(text) : text) + "; see " + app.get_name() + " --help");
    }
    return std::nullopt;
}

}  // namespace kvx::commandline
