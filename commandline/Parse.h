#pragma once

#include <functional>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace kvx::commandline {

/// Parses the command line by the table of `app`, whose option "--NAME" may be spelled "-NAME" too.
/// Returns nothing when the program is to run; else its exit status, with what was asked for or an
/// error printed. `shown`, if any, makes an error fit to be shown.
[[nodiscard]] std::optional<int> parse(
    CLI::App& app, int argc, const char* const* argv,
    const std::function<std::string(const std::string&)>& shown = {});

}  // namespace kvx::commandline
