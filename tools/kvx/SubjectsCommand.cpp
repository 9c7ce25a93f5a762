// kvx subjects: the busiest subjects, as the daemon counts them, as a list or as a tree. A line of
// the tree has the sum of all below it.

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/bus/Output.h"
#include "tools/kvx/DaemonAnswers.h"
#include "tools/kvx/DaemonView.h"

namespace kvx::tool {

namespace {

constexpr int kMostElements = 250;  // more than a subject can have

class SubjectNode {
  public:
    // What is below `depth` elements is one.
    void add(std::string_view subject, const Json& row, int depth = kMostElements) {
        rate_ += realIn(row, "rate");
        byteRate_ += realIn(row, "byte_rate");
        messages_ += numberIn(row, "messages");
        if (subject.empty()) return;
        const auto dot = depth > 1 ? subject.find('.') : std::string_view::npos;
        const auto rest = dot == std::string_view::npos ? "" : subject.substr(dot + 1);
        children_[std::string(subject.substr(0, dot))].add(rest, row, depth - 1);
    }

    // Elements with one child only share a line with it.
    void list(const std::string& name, const std::string& indent, Table& table) const {
        if (!name.empty() && children_.size() == 1 && isPassage()) {
            const auto& [element, child] = *children_.begin();
            return child.list(name + "." + element, indent, table);
        }
        if (!name.empty()) {
            table.add({indent + name, rateText(rate_), bytesText(byteRate_), countText(messages_)});
        }
        std::vector<std::pair<std::string, const SubjectNode*>> sorted;
        for (const auto& [element, child] : children_) sorted.emplace_back(element, &child);
        std::ranges::stable_sort(sorted, [](const auto& a, const auto& b) {
            return a.second->messages_ > b.second->messages_;
        });
        for (const auto& [element, child] : sorted) {
            child->list(element, name.empty() ? "" : indent + "  ", table);
        }
    }

  private:
    // Nothing was sent on its own subject.
    [[nodiscard]] bool isPassage() const {
        return messages_ == children_.begin()->second.messages_;
    }

    double rate_ = 0;
    double byteRate_ = 0;
    std::uint64_t messages_ = 0;
    std::map<std::string, SubjectNode> children_;
};

void printTree(const Json& rows) {
    SubjectNode root;
    for (const auto& row : rows) root.add(textIn(row, "subject"), row);
    Table table({"SUBJECT", ">MESSAGES/S", ">BYTES/S", ">MESSAGES"});
    root.list("", "", table);
    table.print();
}

}  // namespace

int subjects(const DaemonOptions& options) {
    const AskedOfDaemon question{bus::kSubjectsSubject, options.subject, options.limit,
                                 options.shapes};
    return askDaemon(options, {question}, [&options](const auto& answers) {
        const Json& rows = rowsIn(answers[0], "subject");
        if (options.connection.json) {
            printRows(rows);
            return kSuccess;
        }
        options.tree ? printTree(rows) : subjectsTable(rows, options.shapes).print();
        const auto every = numberIn(answers[0], "every");
        bus::printLine(fmt::format(
            "{} of {} subjects that the daemon keeps count of{}", rows.size(),
            numberIn(answers[0], "known"),
            every > 1 ? fmt::format("; it counts one message in {}, by chance", every) : ""));
        return kSuccess;
    });
}

}  // namespace kvx::tool
