// A question is asked after notices are heard, and its answer is begun after it was asked, so the
// answer has every change whose notice came before the question: those notices are dropped, and
// the ones since are kept until the answer says which of them it has. What then does not fit, a
// hole in the numbers or an epoch that is not the answer's, is the reason for the next question:
// the history for a hole, the query for an epoch. While the history is asked for, what comes next
// in order is given all the same. The epoch that an answer has just left is none:
// its last notices may arrive late.

#include "kvx/FollowState.h"

#include <algorithm>
#include <utility>

#include "kvx/ChangeRecord.h"

namespace kvx::detail {

namespace {

void appendText(std::string& key, std::string_view text) {
    key += std::to_string(text.size());
    key += ':';
    key += text;
}

void appendValue(std::string& key, const Value& value) {
    key += static_cast<char>('0' + static_cast<int>(value.kind()));
    appendText(key, value.toString());
}

// In any order of the fields.
bool isSameRow(const Record& one, const Record& other) {
    return one.size() == other.size() &&
           std::all_of(one.begin(), one.end(),
                       [&](const Field& field) { return other[field.name] == field.value; });
}

}  // namespace

void FollowState::start() {
    ask(Question::Query);
}

// What is known to be needed before now is in the answer.
void FollowState::ask(Question question) {
    open_ = question;
    kept_.clear();
    keptBytes_ = 0;
    isInDoubt_ = false;
    sink_.ask(question);
}

void FollowState::fail(const Error& error) {
    isOver_ = true;
    open_.reset();
    kept_.clear();
    rows_.clear();
    sink_.onFailure(error);
}

void FollowState::onNotice(Notice notice) {
    if (isOver_ || (!open_ && at_.epoch == 0)) return;
    if (open_ == Question::Query) return keep(std::move(notice));
    const bool isSameEpoch = notice.stamp.epoch == at_.epoch;
    if (isSameEpoch && takeNext(notice)) return;
    if (open_) return keep(std::move(notice));
    ask(isSameEpoch ? Question::History : Question::Query);
}

void FollowState::keep(Notice notice) {
    keptBytes_ += notice.bytes;
    kept_.push_back(std::move(notice));
    if (kept_.size() <= limits_.notices && keptBytes_ <= limits_.bytes) return;
    kept_.clear();
    keptBytes_ = 0;
    isInDoubt_ = true;
}

void FollowState::onLoss() {
    if (isOver_) return;
    if (open_) {
        isInDoubt_ = true;
    } else if (at_.epoch != 0) {
        ask(Question::History);
    }
}

void FollowState::onQuestionFailed(const Error& error) {
    if (isOver_ || !open_) return;
    if (at_.epoch == 0) return fail(error);
    const bool mayComeYet = error.code == Errc::Lost || error.code == Errc::TimedOut;
    ask(mayComeYet ? *open_ : Question::Query);
}

void FollowState::onAnswer(AnswerRows answer) {
    if (isOver_ || open_ != Question::Query) return;
    if (!answer.stamp) {
        return fail({Errc::InvalidArgument, "the service does not number its changes", {}});
    }
    for (const std::string& field : answer.source.key) {
        const auto hasField = [&](const Record& row) { return row.contains(field); };
        if (std::ranges::all_of(answer.rows, hasField)) continue;
        return fail({Errc::InvalidArgument, "the rows lack the key field '" + field + "'", {}});
    }
    if (answer.stamp->epoch == at_.epoch && answer.stamp->number < at_.number) {
        return ask(Question::Query);
    }
    open_.reset();
    at_.epoch == 0 ? begin(std::move(answer)) : resynchronise(std::move(answer));
    followOn();
}

void FollowState::begin(AnswerRows answer) {
    at_ = *answer.stamp;
    source_ = std::move(answer.source);
    for (const Record& row : answer.rows) sink_.onRow(row);
    rows_ = byKey(std::move(answer.rows));
}

void FollowState::resynchronise(AnswerRows answer) {
    if (answer.stamp->epoch != at_.epoch) left_ = at_.epoch;
    at_ = *answer.stamp;
    RowsByKey before = std::move(rows_);
    if (answer.source != source_) {
        source_ = std::move(answer.source);
        Rows rows;
        for (auto& [key, row] : before) rows.push_back(std::move(row));
        before = byKey(std::move(rows));
    }
    rows_ = byKey(std::move(answer.rows));
    std::vector<Record> differences;
    for (const auto& [key, row] : before) {
        if (rows_.contains(key)) continue;
        differences.push_back(changeRecord(Change::Deleted, row, source_.table));
    }
    for (const auto& [key, row] : rows_) {
        const auto found = before.find(key);
        const bool isNew = found == before.end();
        if (!isNew && isSameRow(found->second, row)) continue;
        differences.push_back(
            changeRecord(isNew ? Change::Inserted : Change::Changed, row, source_.table));
    }
    sink_.onResynchronised(differences);
}

void FollowState::onHistory(std::span<const Notice> notices) {
    if (isOver_ || open_ != Question::History) return;
    for (const Notice& notice : notices) {
        if (notice.stamp.epoch != at_.epoch || !takeNext(notice)) return ask(Question::Query);
    }
    open_.reset();
    followOn();
}

void FollowState::followOn() {
    auto kept = std::exchange(kept_, {});
    keptBytes_ = 0;
    std::ranges::stable_sort(kept, {}, [](const Notice& one) { return one.stamp.number; });
    bool hasHole = std::exchange(isInDoubt_, false);
    bool isStrange = false;
    for (const Notice& notice : kept) {
        if (notice.stamp.epoch == at_.epoch) {
            hasHole = !takeNext(notice) || hasHole;
        } else if (notice.stamp.epoch != left_) {
            isStrange = true;
        }
    }
    if (isStrange) return ask(Question::Query);
    if (hasHole) ask(Question::History);
}

// False when it is not the next one of its epoch but a later one.
bool FollowState::takeNext(const Notice& notice) {
    if (notice.stamp.number <= at_.number) return true;
    if (notice.stamp.number != at_.number + 1 || notice.changes.empty()) return false;
    at_ = notice.stamp;
    for (const Record& change : notice.changes) apply(change);
    return true;
}

void FollowState::apply(const Record& record) {
    const auto change = changeOf(record);
    const bool isOurs = source_.table.empty() || tableOf(record) == source_.table;
    if (!change || !isOurs) return;
    Record row = rowOf(record);
    std::string key = keyOf(row);
    const auto known = rows_.find(key);
    const bool isKnown = known != rows_.end();
    const bool isDeletion = change == Change::Deleted;
    const bool isAsKnown = isDeletion ? !isKnown : isKnown && isSameRow(known->second, row);
    // Without a key there may be several such rows.
    if (isAsKnown && !source_.key.empty()) return;
    if (!isDeletion) {
        rows_.insert_or_assign(std::move(key), std::move(row));
    } else if (isKnown) {
        rows_.erase(known);
    }
    sink_.onChange(record);
}

std::string FollowState::keyOf(const Record& row) const {
    std::string key;
    for (const std::string& name : source_.key) appendValue(key, row[name]);
    if (!source_.key.empty()) return key;
    std::map<std::string_view, Value> fields;
    for (const Field& field : row) fields.emplace(field.name, field.value);
    for (const auto& [name, value] : fields) {
        appendText(key, name);
        appendValue(key, value);
    }
    return key;
}

// Of two rows with one key the last one.
FollowState::RowsByKey FollowState::byKey(Rows rows) const {
    RowsByKey map;
    for (Record& row : rows) {
        std::string key = keyOf(row);
        map.insert_or_assign(std::move(key), std::move(row));
    }
    return map;
}

}  // namespace kvx::detail
