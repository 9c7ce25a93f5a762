#include "commandline/Table.h"

namespace kvx::commandline {

namespace {

// A text inside '...' of an argument of _arguments.
std::string safe(const std::string& text) {
    std::string result;
    for (const char character : escaped(text, "\\[]:")) {
        result += character == '\'' ? "'\\''" : std::string(1, character);
    }
    return result;
}

std::string zshAction(const Value& value) {
    const std::string message = ':' + safe(value.name) + ':';
    switch (value.kind) {
        case Value::Kind::None:
            return {};
        case Value::Kind::OneOf:
            return message + '(' + joined(value.words, " ") + ')';
        case Value::Kind::Files:
            return message + "_files";
        case Value::Kind::Users:
            return message + "_users";
        case Value::Kind::Other:
            break;
    }
    return message + "{true}";  // a message here would keep options from being completed
}

// The further values of options that have several: words that are no options, while the last option
// on the line is theirs.
std::string furtherValues(const Command& command) {
    std::string text;
    for (const Argument& option : command.options) {
        if (!option.value.isList || option.value.kind != Value::Kind::Files) continue;
        text += "[[ ${words[(R)-*]} == (-|--)" + option.name + " ]] && _files; ";
    }
    return text.empty() ? text : " \\\n        '*: :{" + text + "}'";
}

// The arguments of _arguments, one a line.
std::string arguments(const Table& table, const Command& command) {
    std::string text;
    for (const Argument& option : command.options) {
        const std::string rest = '[' + safe(option.text) + ']' + zshAction(option.value) + '\'';
        const char* const equals = option.value.kind == Value::Kind::None ? "" : "=";
        text += " \\\n        '*--" + option.name + equals + rest;
        if (table.dashes == Dashes::Any) text += " \\\n        '*-" + option.name + rest;
    }
    for (const Argument& positional : command.positionals) {
        text += std::string(" \\\n        '") + (positional.value.isList ? "*" : "") +
                zshAction(positional.value) + '\'';
    }
    return command.positionals.empty() ? text + furtherValues(command) : text;
}

std::string commandWords(const Table& table) {
    std::string text;
    for (const Command& command : table.commands) {
        text += command.name + "\\:\"" + safe(command.text) + "\" ";
    }
    return text;
}

}  // namespace

std::string zshCompletion(const Table& table) {
    std::string text = "#compdef " + table.program + '\n' + heading(table, "zsh") + "\n_" +
                       table.program + "() {\n    local curcontext=$curcontext state line\n" +
                       "    _arguments -C" + arguments(table, table.top);
    if (!table.commands.empty()) {
        text += " \\\n        ': :((" + commandWords(table) + "))' \\\n        '*:: :->rest'\n" +
                "    [[ $state == rest ]] || return\n    case $line[1] in\n";
        for (const Command& command : table.commands) {
            text += "    " + command.name + ")\n        _arguments" + arguments(table, command) +
                    "\n        ;;\n";
        }
        text += "    esac";
    }
    return text + "\n}\n\n_" + table.program + " \"$@\"\n";
}

}  // namespace kvx::commandline
