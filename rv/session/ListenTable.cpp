// Records are owned by an id table, whose addresses stay valid, and indexed by subject in a tree of
// pointers to them. Both are changed together: without memory for the tree the record is removed
// again. The order of listening, which announcements need, is not stored but sorted by serial on
// demand.

#include "rv/session/ListenTable.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace kvx::session {

namespace {
rv_Listener listenerOf(void* id) {
    return static_cast<rv_Listener>(id);
}
}  // namespace

rv_Listener ListenTable::add(ListenRecord record) {
    isReachedKnown_ = false;
    void* id = records_.add(std::move(record));
    if (id == nullptr) return nullptr;
    ListenRecord* kept = records_.find(id);
    kept->id = listenerOf(id);
    try {
        tree_.add(kept->subject, kept);
    } catch (const std::bad_alloc&) {
        records_.remove(id);
        return nullptr;
    }
    return listenerOf(id);
}

ListenRecord* ListenTable::find(rv_Listener id) {
    return records_.find(id);
}

bool ListenTable::setAnnounced(rv_Listener id, bool announced) {
    ListenRecord* const record = find(id);
    if (record != nullptr) record->announced = announced;
    return record != nullptr;
}

bool ListenTable::isAnnounced(SubjectView subject) {
    bool found = false;
    records_.forEach([&](void* /*id*/, const ListenRecord& record) {
        const SubjectView other = record.subject;
        found = found || (record.announced && other.length() == subject.length() &&
                          std::memcmp(other.data(), subject.data(), subject.length()) == 0);
    });
    return found;
}

std::optional<ListenRecord> ListenTable::take(rv_Listener id) noexcept {
    ListenRecord* const record = records_.find(id);
    if (record == nullptr) return std::nullopt;
    isReachedKnown_ = false;
    static_cast<void>(tree_.remove(record->subject, record));
    std::optional<ListenRecord> taken(std::move(*record));
    records_.remove(id);
    return taken;
}

const ListenTable::Reached* ListenTable::reach(wire::Bytes encoded) {
    const std::string_view bytes(reinterpret_cast<const char*>(encoded.data()), encoded.size());
    if (isReachedKnown_ && bytes == reached_.subject) return &reached_;
    const auto subject = SubjectView::parse(encoded.data(), encoded.size());
    if (!subject) return nullptr;
    isReachedKnown_ = false;
    reached_.subject = subject->encoded();
    reached_.text = subject->text();
    reached_.listeners.clear();
    tree_.match(*subject, matchFor(*subject),
                [this](const ListenRecord& record) { reached_.listeners.push_back(record.id); });
    isReachedKnown_ = true;
    return &reached_;
}

std::vector<rv_Listener> ListenTable::ordered() {
    std::vector<std::pair<long, rv_Listener>> bySerial;
    bySerial.reserve(records_.size());
    records_.forEach([&](void* id, const ListenRecord& record) {
        bySerial.emplace_back(record.serial, listenerOf(id));
    });
    std::ranges::sort(bySerial);
    std::vector<rv_Listener> all;
    all.reserve(bySerial.size());
    for (const auto& [serial, id] : bySerial) all.push_back(id);
    return all;
}

std::string ListenTable::companionText(const ListenRecord& record) {
    const ListenRecord* companion = records_.find(record.companion);
    return companion == nullptr ? std::string() : companion->subject.view().text();
}

}  // namespace kvx::session
