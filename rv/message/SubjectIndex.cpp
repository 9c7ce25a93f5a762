// Subscriptions by subject, and the subjects that a message reaches.
//
// Every subject with subscriptions is a leaf, found by the hash of its bytes: adding, removing and
// the subscriptions on a message's very subject cost one probe and one comparison, whatever their
// number. Only patterns are in a tree besides (PatternTrie.cpp). A message on a pattern, which is
// rare, is compared with every leaf in turn: they lie side by side in memory.
//
// Entries are found again by their place in the order of adding, which is never used twice. So a
// search between two turns holds a leaf's number and that place, even if the leaf goes and the
// number comes to name another one: its entries are all newer than the search.

#include "rv/message/SubjectIndex.h"

#include <algorithm>
#include <limits>
#include <random>
#include <utility>

#include "rv/message/ShortText.h"

namespace kvx {

namespace {

std::uint64_t randomSeed() {
    std::random_device random;
    return static_cast<std::uint64_t>(random()) << 32U | random();
}

std::span<const std::uint8_t> bytesOf(SubjectView subject) {
    return {static_cast<const std::uint8_t*>(subject.data()), subject.length()};
}

bool isReserved(std::string_view first) {
    return first == kInboxElement || first == kReservedElement;
}

}  // namespace

bool covers(SubjectView pattern, SubjectView covered) {
    auto other = covered.begin();
    for (auto at = pattern.begin(); at != pattern.end(); ++at, ++other) {
        const std::string_view element = *at;
        if (other == covered.end()) return false;
        const bool isWild = element == kAnyElement;
        const auto following = [](SubjectView::Iterator here) { return ++here; };
        const bool isLast = following(at) == pattern.end();
        const bool isRest = isLast && element == kAnyTrailingElements;
        if ((isWild || isRest) && other == covered.begin() && isReserved(*other)) return false;
        if (isRest) return true;
        if (*other == kAnyTrailingElements && following(other) == covered.end()) return false;
        if (!isWild && element != *other) return false;
    }
    return other == covered.end();
}

std::span<const SubjectIndex::Entry> SubjectIndex::Leaf::entries() const {
    if (list != nullptr) return *list;
    return {&entry, entry.subscription == nullptr ? 0U : 1U};
}

void SubjectIndex::Leaf::append(Entry added) {
    if (list != nullptr) return list->push_back(added);
    if (entry.subscription != nullptr) {
        list = std::make_unique<std::vector<Entry>>(std::initializer_list<Entry>{entry, added});
        entry = {};
    } else {
        entry = added;
    }
}

void SubjectIndex::Leaf::erase(std::size_t position) noexcept {
    if (list == nullptr) {
        entry = {};
        return;
    }
    list->erase(list->begin() + static_cast<std::ptrdiff_t>(position));
    if (list->size() == 1) {
        entry = list->front();
        list.reset();
    } else if (list->size() * 4 < list->capacity()) {
        list->shrink_to_fit();
    }
}

SubjectIndex::SubjectIndex() : hash_(randomSeed()), patterns_(hash_) {
    leaves_.makeRoom(1);
}

std::uint32_t SubjectIndex::hashOf(SubjectView subject) const {
    return SubjectHash::forSlot(hash_.ofBytes(subject.data(), subject.length()));
}

SubjectIndex::SubjectId SubjectIndex::find(SubjectView subject, std::uint32_t hash) const {
    const HashSlot* const slot = subjects_.find(hash, [this, subject](const HashSlot& candidate) {
        const auto known = leaves_[candidate.number].subject.view();
        return known.size() == subject.length() &&
               sameText(reinterpret_cast<const char*>(known.data()),
                        static_cast<const char*>(subject.data()), known.size());
    });
    return slot == nullptr ? 0 : slot->number;
}

SubjectIndex::SubjectId SubjectIndex::find(SubjectView subject) const {
    return find(subject, hashOf(subject));
}

SubjectIndex::SubjectId SubjectIndex::add(SubjectView subject, void* subscription) {
    const std::uint32_t hash = hashOf(subject);
    SubjectId id = find(subject, hash);
    if (id == 0) id = insert(subject, hash);
    leaves_[id].append({subscription, nextOrder_});
    ++nextOrder_;
    ++size_;
    return id;
}

// A new leaf: its first entry needs no memory.
SubjectIndex::SubjectId SubjectIndex::insert(SubjectView subject, std::uint32_t hash) {
    subjects_.makeRoom();
    leaves_.makeRoom(1);
    const SubjectId id = leaves_.take();
    Leaf& leaf = leaves_[id];
    try {
        leaf.subject.assign(bytesOf(subject));
        if (subject.hasWildcards()) leaf.node = patterns_.add(subject, id);
    } catch (...) {
        leaves_.give(id);
        throw;
    }
    leaf.hash = hash;
    subjects_.insert({hash, id});
    return id;
}

bool SubjectIndex::remove(SubjectId id, const void* subscription) noexcept {
    if (id == 0) return false;
    Leaf& leaf = leaves_[id];
    const std::span<const Entry> entries = leaf.entries();
    std::size_t position = entries.size();
    while (position > 0 && entries[position - 1].subscription != subscription) --position;
    if (position == 0) return false;
    leaf.erase(position - 1);
    --size_;
    if (!leaf.entries().empty()) return true;
    if (walks_ == 0) {
        drop(id);
    } else if (!std::exchange(leaf.isUnused, true)) {
        leaf.nextUnused = std::exchange(unused_, id);
    }
    return true;
}

void SubjectIndex::drop(SubjectId id) noexcept {
    const Leaf& leaf = leaves_[id];
    if (leaf.node != 0) patterns_.remove(leaf.node);
    subjects_.erase(subjects_.find(
        leaf.hash, [id](const HashSlot& candidate) { return candidate.number == id; }));
    leaves_.give(id);
}

void SubjectIndex::endWalk() noexcept {
    if (--walks_ != 0) return;
    while (unused_ != 0) {
        Leaf& leaf = leaves_[unused_];
        const SubjectId id = std::exchange(unused_, leaf.nextUnused);
        leaf.isUnused = false;
        if (leaf.entries().empty()) drop(id);
    }
}

// The place of the first entry at or after `order`.
std::size_t SubjectIndex::positionFrom(std::span<const Entry> entries, std::uint64_t order) {
    const auto at = std::ranges::lower_bound(entries, order, {}, &Entry::order);
    return static_cast<std::size_t>(at - entries.begin());
}

SubjectIndex::Finder::Finder(SubjectMatch how)
    : how_(how),
      stage_(how == SubjectMatch::kCovered ? Stage::kEach : Stage::kStart),
      patterns_(how != SubjectMatch::kLiteralRoot) {}

SubjectIndex::SubjectId SubjectIndex::Finder::next(const SubjectIndex& index, SubjectView subject,
                                                   SubjectElements& elements, std::size_t& steps) {
    if (stage_ == Stage::kStart) {
        hash_ = index.hashOf(subject);
        index.subjects_.prefetch(hash_);
        const bool isWhole = how_ == SubjectMatch::kExact || index.patterns_.empty();
        stage_ = isWhole ? Stage::kWhole : Stage::kPatterns;
    }
    while (stage_ == Stage::kPatterns && steps > 0) {
        --steps;
        const SubjectId id = patterns_.step(index.patterns_, elements);
        if (patterns_.isDone()) stage_ = Stage::kWhole;
        if (id != 0) return id;
    }
    while (stage_ == Stage::kEach && steps > 0) {
        --steps;
        const SubjectId id = index.leaves_.next(each_);
        each_ = id + 1;
        if (id == 0) stage_ = Stage::kDone;
        if (index.leaves_.holds(id) && covers(subject, index.leaves_[id].view())) return id;
    }
    if (stage_ != Stage::kWhole || steps == 0) return 0;
    --steps;
    stage_ = Stage::kDone;
    const SubjectId id = index.find(subject, hash_);
    const bool isPattern = id != 0 && index.leaves_[id].node != 0;
    // Patterns have been found already.
    return isPattern && how_ != SubjectMatch::kExact ? 0 : id;
}

SubjectIndex::Walk::Walk(SubjectIndex& index, SubjectView subject, SubjectMatch how)
    : index_(index), base_(index.reached_.size()), limit_(index.nextOrder_) {
    auto& reached = index_.reached_;
    SubjectElements elements(subject, index.hash_);
    try {
        std::size_t steps = std::numeric_limits<std::size_t>::max();
        Finder finder(how);
        while (const SubjectId id = finder.next(index_, subject, elements, steps)) {
            const std::span<const Entry> entries = index_.leaves_[id].entries();
            if (!entries.empty()) reached.push_back({id, 0, entries[0].order});
        }
    } catch (...) {
        reached.resize(base_);
        throw;
    }
    if (reached.size() - base_ > 1) {
        std::make_heap(reached.begin() + static_cast<std::ptrdiff_t>(base_), reached.end(),
                       Later{});
    }
    ++index_.walks_;
}

SubjectIndex::Walk::~Walk() {
    index_.reached_.resize(base_);
    index_.endWalk();
}

void* SubjectIndex::Walk::next() {
    auto& reached = index_.reached_;
    while (reached.size() > base_) {
        const auto first = reached.begin() + static_cast<std::ptrdiff_t>(base_);
        const bool isHeap = reached.size() - base_ > 1;
        if (isHeap) std::pop_heap(first, reached.end(), Later{});
        Cursor& cursor = reached.back();
        const std::span<const Entry> entries = index_.leaves_[cursor.subject].entries();
        std::size_t position = cursor.position;
        if (position >= entries.size() || entries[position].order != cursor.order) {
            position = positionFrom(entries, cursor.order);
        }
        void* found = nullptr;
        if (position < entries.size() && entries[position].order == cursor.order) {
            found = entries[position++].subscription;
        }
        if (position < entries.size() && entries[position].order < limit_) {
            cursor.position = static_cast<std::uint32_t>(position);
            cursor.order = entries[position].order;
            if (isHeap) std::push_heap(first, reached.end(), Later{});
        } else {
            reached.pop_back();
        }
        if (found != nullptr) return found;
    }
    return nullptr;
}

SubjectIndex::Search::Search(SubjectIndex& index, SubjectMatch how)
    : index_(index), finder_(how), limit_(index.nextOrder_) {}

SubjectIndex::Search::~Search() {
    finder_.release(index_);
}

SubjectIndex::Search::Turn::Turn(Search& search, SubjectView subject)
    : search_(search), subject_(subject), elements_(subject, search.index_.hash_) {
    if (search_.subject_ != 0) resume();
}

// The subject may have gone since the last turn, and its number may name another.
void SubjectIndex::Search::Turn::resume() {
    const SubjectId id = std::exchange(search_.subject_, 0);
    if (search_.index_.leaves_.holds(id)) enter(id, search_.order_);
}

void SubjectIndex::Search::Turn::enter(SubjectId id, std::uint64_t order) {
    const std::span<const Entry> entries = search_.index_.leaves_[id].entries();
    entries_ = order == 0 ? entries : entries.subspan(positionFrom(entries, order));
    const bool hasMore = !entries_.empty() && entries_[0].order < search_.limit_;
    search_.subject_ = hasMore ? id : 0;
    search_.entered_ = id;
    search_.order_ = order;
}

void* SubjectIndex::Search::Turn::next(std::size_t& steps) {
    while (search_.subject_ == 0) {
        const SubjectId id = search_.finder_.next(search_.index_, subject_, elements_, steps);
        if (id == 0) return nullptr;
        enter(id, 0);
    }
    if (steps == 0) return nullptr;
    --steps;
    return take();
}

void* SubjectIndex::Search::Turn::take() {
    const Entry entry = entries_[0];
    entries_ = entries_.subspan(1);
    search_.order_ = entry.order + 1;
    if (entries_.empty() || entries_[0].order >= search_.limit_) search_.subject_ = 0;
    return entry.subscription;
}

}  // namespace kvx
