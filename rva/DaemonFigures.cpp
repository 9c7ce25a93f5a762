#include "rva/DaemonFigures.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <tuple>

#include "tools/bus/DaemonAnswer.h"

namespace kvx::rva {

namespace {

using bus::numberIn;
using bus::realIn;

// Only what has a sum that can be shown: a counter of some sessions would fall when one ends.
constexpr const char* kSummed[] = {"memory", "waiting", "waiting_bytes", "rate", "byte_rate"};

using Row = std::reference_wrapper<const Json>;

auto importance(const Json& session) {
    return std::tuple(numberIn(session, "behind_ms"), numberIn(session, "waiting_bytes"),
                      numberIn(session, "published") + numberIn(session, "delivered"));
}

// The rows that are objects, as the daemon's are.
std::vector<Row> rowsOf(const Json& answer, const char* name) {
    std::vector<Row> rows;
    for (const Json& row : bus::rowsIn(answer, name)) {
        if (row.is_object()) rows.emplace_back(row);
    }
    return rows;
}

Rows shownOf(const std::vector<Row>& all) {
    Rows rows;
    for (std::size_t i = 0; i < all.size(); ++i) {
        const Json& row = all[i];
        i < Rows::kKept ? rows.kept.push_back(row) : static_cast<void>(++rows.more);
        if (i < Rows::kShown) continue;
        for (const char* field : kSummed) {
            rows.others[field] = realIn(rows.others, field) + realIn(row, field);
        }
    }
    return rows;
}

}  // namespace

void DaemonFigures::take(Topic topic, const Json& answer, platform::Milliseconds now) {
    State& of = at(topic);
    of.how = Answering::Answers;
    of.answered = now;
    switch (topic) {
        case Topic::Status:
            status_ = answer;
            break;
        case Topic::Sessions: {
            auto all = rowsOf(answer, "session");
            behind_ = static_cast<std::uint64_t>(std::ranges::count_if(
                all, [](const Json& session) { return session.contains("behind_ms"); }));
            std::ranges::stable_sort(all, std::greater(), importance);
            sessions_ = shownOf(all);
            break;
        }
        case Topic::Subjects:
            subjects_ = shownOf(rowsOf(answer, "subject"));
            known_ = numberIn(answer, "known");
            break;
    }
}

void DaemonFigures::miss(Topic topic, Answering how) {
    at(topic).how = how;
    clear(topic);
}

void DaemonFigures::lose() {
    for (const auto topic : {Topic::Status, Topic::Sessions, Topic::Subjects}) {
        miss(topic, Answering::Lost);
    }
}

void DaemonFigures::clear(Topic topic) {
    switch (topic) {
        case Topic::Status:
            status_ = Json::object();
            break;
        case Topic::Sessions:
            sessions_ = {};
            behind_ = 0;
            break;
        case Topic::Subjects:
            subjects_ = {};
            known_ = 0;
            break;
    }
}

}  // namespace kvx::rva
