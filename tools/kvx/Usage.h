#pragma once

#include <cstdint>
#include <string>

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace kvx::tool {

/// What is wrong with a command line that `app` refused with `error`, as one line: an unknown
/// command or option is named, with the nearest known one.
std::string usageProblem(const CLI::App& app, const CLI::ParseError& error);

/// The same for `word` where a command of `app` is meant.
std::string unknownCommand(const CLI::App& app, const std::string& word);

/// What is wrong with `text` as a whole number of at least `least`, or an empty text.
std::string problemWithCount(const std::string& text, std::uint64_t least);

/// What is wrong with `text` as a number of seconds, decimals allowed, or an empty text.
std::string problemWithSeconds(const std::string& text, double least, double most);

}  // namespace kvx::tool
