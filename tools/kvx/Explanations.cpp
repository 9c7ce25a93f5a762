#include "tools/kvx/Explanations.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <sstream>
#include <string_view>

namespace kvx::tool {

namespace {

constexpr int kLeastTellingNumber = 10'000;  // smaller ones are in lines for other reasons

std::string lower(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](unsigned char c) { return std::tolower(c); });
    return result;
}

// In lower case, without spaces and full stops at its ends.
std::string plain(std::string_view text) {
    static constexpr std::string_view kEdges = " \t\n.\"'";
    const auto begin = text.find_first_not_of(kEdges);
    if (begin == std::string_view::npos) return {};
    return lower(text.substr(begin, text.find_last_not_of(kEdges) + 1 - begin));
}

std::optional<int> numberOf(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number)
                                                                    : std::nullopt;
}

bool hasNumber(const Explanation& one, int number) {
    const auto code = numberOf(one.code);
    return code && (*code == number || *code == -number);
}

// A constant is known with and without its "k" or its scope, a subject by its last elements too.
bool isName(const std::string& name, const std::string& words) {
    if (name.empty() || !name.ends_with(words)) return false;
    const std::string before = name.substr(0, name.size() - words.size());
    return before.empty() || before == "k" || before.ends_with(':') || before.ends_with('.');
}

bool isExactly(const Explanation& one, const std::string& words) {
    return plain(one.text) == words || isName(lower(one.name), words);
}

// Whether `part` is in `text` with no letter or digit beside it.
bool hasPhrase(std::string_view text, std::string_view part) {
    const auto isEdge = [&](std::size_t at) {
        return at >= text.size() || std::isalnum(static_cast<unsigned char>(text[at])) == 0;
    };
    if (part.empty()) return false;
    for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
        if ((at == 0 || isEdge(at - 1)) && isEdge(at + part.size())) return true;
    }
    return false;
}

template <class Belongs>
Explanations those(Belongs belongs) {
    Explanations found;
    std::ranges::copy_if(allExplanations(), std::back_inserter(found), belongs);
    return found;
}

Explanations withNumbersIn(const std::string& line) {
    std::vector<int> numbers;
    std::istringstream words(line);
    for (std::string word; words >> word;) {
        const auto number = numberOf(word);
        if (number && (*number <= -kLeastTellingNumber || *number >= kLeastTellingNumber))
            numbers.push_back(*number);
    }
    return those([&](const Explanation& one) {
        return std::ranges::any_of(numbers, [&](int number) { return hasNumber(one, number); });
    });
}

// Those whose text or subject is a part of the line, but for parts of a larger one that is.
Explanations withTextsIn(const std::string& line) {
    Explanations found = those([&](const Explanation& one) {
        return hasPhrase(line, plain(one.text)) || hasPhrase(line, lower(one.name));
    });
    const Explanations all = found;
    std::erase_if(found, [&](const Explanation& one) {
        return std::ranges::any_of(all, [&](const Explanation& other) {
            return other.text.size() > one.text.size() &&
                   hasPhrase(plain(other.text), plain(one.text));
        });
    });
    return found;
}

}  // namespace

const Explanations& allExplanations() {
    static const Explanations all = [] {
        Explanations made;
        explaining::addBusCodes(made);
        explaining::addMiddlewareCodes(made);
        explaining::addLosses(made);
        explaining::addLogLines(made);
        return made;
    }();
    return all;
}

Explanations explanationsOf(const std::string& words) {
    const std::string asked = plain(words);
    if (asked.empty()) return {};
    if (const auto number = numberOf(asked)) {
        return those([&](const Explanation& one) { return hasNumber(one, *number); });
    }
    if (auto exact = those([&](const Explanation& one) { return isExactly(one, asked); });
        !exact.empty()) {
        return exact;
    }
    if (auto numbered = withNumbersIn(asked); !numbered.empty()) return numbered;
    if (auto told = withTextsIn(asked); !told.empty()) return told;
    return those([&](const Explanation& one) {
        return hasPhrase(lower(one.text), asked) || hasPhrase(lower(one.name), asked);
    });
}

std::vector<std::string> explainableWords() {
    std::vector<std::string> words;
    for (const Explanation& one : allExplanations()) {
        for (const std::string* word : {&one.code, &one.name, &one.text}) {
            if (!word->empty()) words.push_back(*word);
        }
    }
    return words;
}

}  // namespace kvx::tool
