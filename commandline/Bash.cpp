// The function goes through the words before the one to complete, and finds the command, the option
// that waits for its value, and how many plain words there are. These make a key, and one `case`
// names what completes it: "COMMAND OPTION" for a value, "COMMAND -" for an option, "COMMAND N" for
// plain word N.

#include <map>

#include "commandline/Table.h"

namespace kvx::commandline {

namespace {

using Cases = std::map<std::string, std::vector<std::string>>;  // what to do, and its keys

std::string inSingleQuotes(const std::string& text) {
    return "'" + text + "'";
}

std::string wordsAction(const std::vector<std::string>& words) {
    return "action=(-W " + inSingleQuotes(joined(words, " ")) + ")";
}

// What completes a value; nothing for one of which nothing is known.
std::string bashAction(const Value& value) {
    switch (value.kind) {
        case Value::Kind::OneOf:
            return wordsAction(value.words);
        case Value::Kind::Files:
            return "action=(-f)";
        case Value::Kind::Users:
            return "action=(-u)";
        case Value::Kind::None:
        case Value::Kind::Other:
            break;
    }
    return {};
}

std::vector<std::string> spellings(const Table& table, const std::string& name) {
    std::vector<std::string> all = {"--" + name};
    if (table.dashes == Dashes::Any) all.push_back("-" + name);
    return all;
}

std::vector<std::string> optionWords(const Command& command, const char* dashes) {
    std::vector<std::string> words;
    for (const Argument& option : command.options) words.push_back(dashes + option.name);
    return words;
}

void add(Cases& cases, const std::string& action, const std::string& command,
         const std::string& what) {
    if (!action.empty()) cases[action].push_back(inSingleQuotes(command + ' ' + what));
}

void addCommand(const Table& table, const std::string& name, const Command& command, Cases& values,
                Cases& actions) {
    for (const Argument& option : command.options) {
        if (option.value.kind == Value::Kind::None) continue;
        for (const std::string& word : spellings(table, option.name)) {
            add(values, option.value.isList ? "option=$word list=yes" : "option=$word list=", name,
                word);
            add(actions, bashAction(option.value), name, word);
        }
    }
    add(actions, wordsAction(optionWords(command, "--")), name, "--");
    if (table.dashes == Dashes::Any) {
        add(actions, wordsAction(optionWords(command, "-")), name, "-");
    }
    int place = 0;
    for (const Argument& positional : command.positionals) {
        add(actions, bashAction(positional.value), name, std::to_string(place++));
    }
}

void addPlain(const std::string& name, const Command& command, Cases& actions) {
    if (command.positionals.empty()) {
        add(actions, wordsAction(optionWords(command, "--")), name, "0");
    }
}

std::string written(const Cases& cases, const char* indent) {
    std::string text;
    for (const auto& [action, keys] : cases) {
        text += indent + joined(keys, " | ") + ") " + action + " ;;\n";
    }
    return text;
}

}  // namespace

std::string bashCompletion(const Table& table) {
    Cases values;
    Cases actions;
    addCommand(table, "", table.top, values, actions);
    if (table.commands.empty()) {
        addPlain("", table.top, actions);
    } else {
        const auto names = commandNames(table);
        add(actions, wordsAction(names), "", "0");
        for (const auto& name : names) add(values, "command=$word", "", name);
    }
    for (const Command& command : table.commands) {
        addCommand(table, command.name, command, values, actions);
        addPlain(command.name, command, actions);
    }
    const std::string oneDash = table.dashes == Dashes::Two ? "" : R"(
    elif [[ $current == -[!-]* ]]; then
        key=-)";
    return heading(table, "bash") + "\n_" + table.program + R"(() {
    local current=${COMP_WORDS[COMP_CWORD]} command='' option='' list='' place=0 word i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        if [[ $word == [=:]* ]]; then
            continue # the shell splits words at these
        elif [[ -n $option && ! ($list == yes && $word == -*) ]]; then
            [[ $list == yes ]] || option=''
            continue
        elif [[ ${COMP_WORDS[i - 1]} == [=:]* ]]; then
            continue
        fi
        option=''
        case "$command $word" in
)" + written(values, "            ") +
           R"(            *' -'*) ;;
            *) place=$((place + 1)) ;;
        esac
    done
    [[ $current != [=:]* ]] || current=''
    local key=$place action=(-W '')
    if [[ -n $option && ! ($list == yes && $current == -*) ]]; then
        key=$option)" +
           oneDash + R"(
    elif [[ $current == -* ]]; then
        key=--
    fi
    case "$command $key" in
)" + written(actions, "        ") +
           R"(    esac
    [[ ${action[0]} != -f ]] || compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen "${action[@]}" -- "$current")
}
complete -F _)" +
           table.program + ' ' + table.program + '\n';
}

}  // namespace kvx::commandline
