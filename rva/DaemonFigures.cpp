#include "rva/DaemonFigures.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <tuple>
#include <utility>

#include "tools/bus/DaemonAnswer.h"

namespace kvx::rva {

namespace {

using bus::numberIn;
using bus::realIn;

// Only what has a sum that can be shown: a counter of some sessions would fall when one ends.
constexpr const char* kSummed[] = {"memory", "waiting", "waiting_bytes", "rate", "byte_rate"};

using RowRef = std::reference_wrapper<const Json>;

auto importance(const Json& session) {
    return std::tuple(numberIn(session, "behind_ms"), numberIn(session, "waiting_bytes"),
                      numberIn(session, "published") + numberIn(session, "delivered"));
}

// The rows that are objects, as the daemon's are.
std::vector<RowRef> rowsOf(const Json& answer, const char* name) {
    std::vector<RowRef> rows;
    for (const Json& row : bus::rowsIn(answer, name)) {
        if (row.is_object()) rows.emplace_back(row);
    }
    return rows;
}

// The subject that stands for all inboxes of a session, of whose questions each has one of its own;
// empty for any other.
std::string inboxesWith(const Json& row) {
    constexpr std::string_view kBegin = "_INBOX.";
    const std::string subject = bus::textIn(row, "subject");
    const auto end = subject.rfind('.') + 1;
    return subject.starts_with(kBegin) && end > kBegin.size() ? subject.substr(0, end) + ">" : "";
}

void addTo(Json& sums, const Json& row) {
    for (const char* field : {"messages", "bytes", "missed"}) {
        sums[field] = numberIn(sums, field) + numberIn(row, field);
    }
    for (const char* field : {"rate", "byte_rate"}) {
        sums[field] = realIn(sums, field) + realIn(row, field);
    }
    for (const char* field : {"age_ms", "listeners", "senders"}) {
        sums[field] = std::max(numberIn(sums, field), numberIn(row, field));
    }
}

// The busiest first, the inboxes of a session as one.
std::vector<Json> subjectsOf(const Json& answer) {
    std::vector<Json> subjects;
    std::map<std::tuple<std::string, std::string, std::string>, std::size_t> folds;
    for (const Json& row : rowsOf(answer, "subject")) {
        const std::string inboxes = inboxesWith(row);
        const auto [fold, isNew] = folds.try_emplace(
            {inboxes, bus::textIn(row, "service"), bus::textIn(row, "network")}, subjects.size());
        if (!isNew && !inboxes.empty()) {
            addTo(subjects[fold->second], row);
            continue;
        }
        subjects.push_back(row);
        if (!inboxes.empty()) subjects.back()["subject"] = inboxes;
    }
    std::ranges::stable_sort(subjects, std::greater(),
                             [](const Json& row) { return realIn(row, "rate"); });
    return subjects;
}

template <class Row>
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
            subjects_ = shownOf(subjectsOf(answer));
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
