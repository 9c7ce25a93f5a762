#include "rv/session/ListenTable.h"

#include <algorithm>
#include <new>
#include <utility>

namespace kvx::session {

namespace {
rv_Listener listenerOf(void* id) {
    return static_cast<rv_Listener>(id);
}
}  // namespace

rv_Listener ListenTable::add(ListenRecord record) {
    void* id = records_.add(std::move(record));
    if (id == nullptr) return nullptr;
    ListenRecord* kept = records_.find(id);
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

void ListenTable::remove(rv_Listener id) {
    const ListenRecord* record = records_.find(id);
    if (record == nullptr) return;
    static_cast<void>(tree_.remove(record->subject, record));
    records_.remove(id);
}

std::vector<const ListenRecord*> ListenTable::ordered() {
    std::vector<const ListenRecord*> all;
    all.reserve(records_.size());
    records_.forEach([&](void*, const ListenRecord& record) { all.push_back(&record); });
    std::ranges::sort(all, {}, &ListenRecord::serial);
    return all;
}

std::string ListenTable::companionText(const ListenRecord& record) {
    const ListenRecord* companion = records_.find(record.companion);
    return companion == nullptr ? std::string() : companion->subject.view().text();
}

}  // namespace kvx::session
