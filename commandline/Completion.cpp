#include "commandline/Completion.h"

#include <CLI/CLI.hpp>

#include <utility>

#include "commandline/Table.h"

namespace kvx::commandline {

void addCompletion(CLI::App& app, Dashes dashes, const Words& words) {
    const auto write = [&app, dashes, words](const std::string& shell) {
        const Table table = tableOf(app, dashes, words);
        std::string script = shell == "bash"   ? bashCompletion(table)
                             : shell == "fish" ? fishCompletion(table)
                                               : zshCompletion(table);
        script.pop_back();  // who prints it ends the line
        throw CLI::CallForVersion(std::move(script), 0);
    };
    app.add_option_function<std::string>("--completion", write)
        ->check(CLI::IsMember({"bash", "fish", "zsh"}))
        ->group("");
}

}  // namespace kvx::commandline
