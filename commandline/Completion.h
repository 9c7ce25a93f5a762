#pragma once

#include <map>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace kvx::commandline {

/// The words that complete a value, by what the table calls the value: the type of an option, the
/// name of a positional. "FILE" and "USER" need no entry.
using Words = std::map<std::string, std::vector<std::string>>;

/// The names in a table of entries that have one.
template <class Entries>
std::vector<std::string> namesIn(const Entries& entries) {
    std::vector<std::string> names;
    for (const auto& entry : entries) names.emplace_back(entry.name);
    return names;
}

/// How a program's options may be spelled.
enum class Dashes {
    Two,  ///< --name
    Any,  ///< --name and -name
};

/// What the help of a program says that takes any.
inline constexpr const char* kDashes = "Options may have one hyphen or two.";

/// Adds the option "--completion SHELL" to the table, after everything else: it prints the
/// completion of the program for bash, fish or zsh, made from the table. It is thrown as
/// `CLI::CallForVersion`, and is in no help.
void addCompletion(CLI::App& app, Dashes dashes, const Words& words = {});

}  // namespace kvx::commandline
