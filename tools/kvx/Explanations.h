#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kvx::tool {

/// A code, advisory, reason or line of a log: what it says, why it comes, and what to do.
struct Explanation {
    std::string kind;  ///< "session code"
    std::string code;  ///< the number; empty when it has none
    std::string name;  ///< of the constant, or the subject of an advisory; may be empty
    std::string text;  ///< as the system writes it
    std::string why;
    std::string mend;
};
using Explanations = std::vector<Explanation>;

/// Everything that the system may report, one kind after another.
const Explanations& allExplanations();

/// What belongs to `words`: a number with or without its sign, a name, a subject or its last
/// elements, a text of the system, or a line that holds one. Exact ones only, when there are any.
Explanations explanationsOf(const std::string& words);

/// The names and texts that `words` may mean.
std::vector<std::string> explainableWords();

namespace explaining {

/// Why a code comes, and what to do.
struct Reason {
    int code;
    const char* why;
    const char* mend;
};

/// Whether `reasons` has each row of the table `rows`, in its order.
template <std::size_t N, class Row, std::size_t M>
consteval bool explains(const Reason (&reasons)[N], const Row (&rows)[M]) {
    if (N != M) return false;
    for (std::size_t i = 0; i < N; ++i) {
        if (reasons[i].code != rows[i].code || *reasons[i].why == '\0' || *reasons[i].mend == '\0')
            return false;
    }
    return true;
}

template <std::size_t N, class Row>
void add(Explanations& all, const char* kind, const Reason (&reasons)[N], const Row (&rows)[N]) {
    for (std::size_t i = 0; i < N; ++i) {
        all.push_back({kind, std::to_string(rows[i].code), rows[i].name, rows[i].text,
                       reasons[i].why, reasons[i].mend});
    }
}

// The kinds, each in the file that is named after it.
void addBusCodes(Explanations& all);
void addMiddlewareCodes(Explanations& all);
void addLosses(Explanations& all);
void addLogLines(Explanations& all);

}  // namespace explaining

}  // namespace kvx::tool
