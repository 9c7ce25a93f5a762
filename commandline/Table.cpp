#include "commandline/Table.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>

namespace kvx::commandline {

namespace {

Value valueOf(const CLI::Option& option, const std::string& name, const Words& words) {
    Value value;
    if (option.get_items_expected_max() == 0) return value;
    value.kind = Value::Kind::Other;
    value.name = name;
    value.isList = option.get_items_expected_max() > 1 && option.get_allow_extra_args();
    if (const auto found = words.find(name); found != words.end()) {
        value.kind = Value::Kind::OneOf;
        value.words = found->second;
    } else if (name == "FILE") {
        value.kind = Value::Kind::Files;
    } else if (name == "USER") {
        value.kind = Value::Kind::Users;
    }
    return value;
}

// The type of an option; a check adds its own behind a colon.
std::string typeOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    return type.substr(type.rfind(':') + 1);
}

void addArguments(const CLI::App& app, const Words& words, Command& command) {
    for (const CLI::Option* option : app.get_options()) {
        const std::string& text = option->get_description();
        if (option->get_positional()) {
            const std::string name = option->get_name(true);
            command.positionals.push_back({name, text, valueOf(*option, name, words)});
        } else if (!option->get_group().empty() && !option->get_lnames().empty()) {
            command.options.push_back(
                {option->get_lnames().front(), text, valueOf(*option, typeOf(*option), words)});
        }
    }
}

Command commandOf(const CLI::App& app, const Words& words) {
    Command command{app.get_name(), app.get_description(), {}, {}};
    addArguments(app, words, command);
    return command;
}

// The options of the program may follow a command, too.
void addCommon(const Command& top, Command& command) {
    for (const Argument& common : top.options) {
        const auto isSame = [&](const Argument& own) { return own.name == common.name; };
        if (std::ranges::none_of(command.options, isSame)) command.options.push_back(common);
    }
}

}  // namespace

Table tableOf(const CLI::App& app, Dashes dashes, const Words& words) {
    Table table{app.get_name(), dashes, commandOf(app, words), {}};
    for (const CLI::App* one : app.get_subcommands([](const CLI::App*) { return true; })) {
        Command& command = table.commands.emplace_back(commandOf(*one, words));
        addCommon(table.top, command);
    }
    return table;
}

std::string joined(const std::vector<std::string>& words, const char* separator) {
    std::string all;
    for (const std::string& word : words) all += (all.empty() ? "" : separator) + word;
    return all;
}

std::string escaped(const std::string& text, const char* characters) {
    std::string result;
    for (const char character : text) {
        if (std::strchr(characters, character) != nullptr) result += '\\';
        result += character;
    }
    return result;
}

std::vector<std::string> commandNames(const Table& table) {
    std::vector<std::string> names;
    for (const Command& command : table.commands) names.push_back(command.name);
    return names;
}

std::string heading(const Table& table, const char* shell) {
    return "# " + std::string(shell) + " completion for " + table.program + ", written by \"" +
           table.program + " --completion " + shell + "\"\n";
}

}  // namespace kvx::commandline
