#include <algorithm>

#include "commandline/Table.h"

namespace kvx::commandline {

namespace {

std::string fishText(const std::string& text) {
    return "'" + escaped(text, "'\\") + "'";
}

// What completes a value; nothing for one of which nothing is known.
std::string argumentsOf(const Value& value) {
    switch (value.kind) {
        case Value::Kind::OneOf:
            return " -a " + fishText(joined(value.words, " "));
        case Value::Kind::Files:
            return " -F";
        case Value::Kind::Users:
            return " -a '(__fish_complete_users)'";
        case Value::Kind::None:
        case Value::Kind::Other:
            break;
    }
    return {};
}

std::string condition(const std::string& command) {
    return command.empty() ? "" : " -n " + fishText("__fish_seen_subcommand_from " + command);
}

// True while the last option on the line is `option`.
std::string afterOption(const Argument& option) {
    return " -n " + fishText("contains -- (commandline -opc | string match -- '-*')[-1] --" +
                             option.name + " -" + option.name);
}

std::string options(const Table& table, const std::string& name, const Command& command) {
    std::string text;
    for (const Argument& option : command.options) {
        for (const char* spelling : {"-l", "-o"}) {
            if (spelling[1] == 'o' && table.dashes == Dashes::Two) continue;
            text += "complete -c " + table.program + condition(name) + ' ' + spelling + ' ' +
                    option.name + (option.value.kind == Value::Kind::None ? "" : " -r") +
                    argumentsOf(option.value) + " -d " + fishText(option.text) + '\n';
        }
        const std::string further = option.value.isList ? argumentsOf(option.value) : "";
        if (further.empty()) continue;
        text += "complete -c " + table.program + afterOption(option) + further + '\n';
    }
    return text;
}

std::string positionals(const Table& table, const Command& command) {
    std::string text;
    for (const Argument& positional : command.positionals) {
        const std::string arguments = argumentsOf(positional.value);
        if (arguments.empty()) continue;
        text += "complete -c " + table.program + condition(command.name) + arguments + '\n';
    }
    return text;
}

}  // namespace

std::string fishCompletion(const Table& table) {
    std::string text = heading(table, "fish") + "\ncomplete -c " + table.program + " -f\n" +
                       options(table, "", table.top);
    const std::string before =
        " -n " + fishText("not __fish_seen_subcommand_from " + joined(commandNames(table), " "));
    for (const Command& command : table.commands) {
        Command own = command;
        std::erase_if(own.options, [&](const Argument& option) {
            const auto isSame = [&](const Argument& other) { return other.name == option.name; };
            return std::ranges::any_of(table.top.options, isSame);
        });
        text += "complete -c " + table.program + before + " -a " + command.name + " -d " +
                fishText(command.text) + '\n' + options(table, command.name, own) +
                positionals(table, command);
    }
    return text;
}

}  // namespace kvx::commandline
