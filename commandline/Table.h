#pragma once

#include <string>
#include <vector>

#include "commandline/Completion.h"

/// The table of a program's options as the shells need it.
namespace kvx::commandline {

/// What completes a value.
struct Value {
    enum class Kind { None, Other, OneOf, Files, Users };

    Kind kind = Kind::None;  ///< None: the option has no value
    std::string name{};
    std::vector<std::string> words{};
    bool isList = false;  ///< all words up to the next option
};

struct Argument {
    std::string name;  ///< of an option, without hyphens
    std::string text;
    Value value;
};

struct Command {
    std::string name;
    std::string text;
    std::vector<Argument> options;  ///< also those of the program
    std::vector<Argument> positionals;
};

struct Table {
    std::string program;
    Dashes dashes;
    Command top;                    ///< the program without a command
    std::vector<Command> commands;  ///< empty: it has none
};

[[nodiscard]] Table tableOf(const CLI::App& app, Dashes dashes, const Words& words);

/// The completion script for a shell.
[[nodiscard]] std::string bashCompletion(const Table& table);
[[nodiscard]] std::string fishCompletion(const Table& table);
[[nodiscard]] std::string zshCompletion(const Table& table);

/// The words with `separator` between them.
[[nodiscard]] std::string joined(const std::vector<std::string>& words, const char* separator);

/// `text` with a backslash before each of `characters`.
[[nodiscard]] std::string escaped(const std::string& text, const char* characters);

/// The names of the commands.
[[nodiscard]] std::vector<std::string> commandNames(const Table& table);

/// The text that heads each script.
[[nodiscard]] std::string heading(const Table& table, const char* shell);

}  // namespace kvx::commandline
