// Subscriptions by subject, and the lookups of a message's subject.
//
// A subject is looked up twice. Subscriptions without wildcards are in `exact_`, by the hash of
// their whole subject: one probe and one comparison, whatever their number. The tree holds every
// subscription, but the walk follows only nodes with wildcards below them, which have a table of
// their own: few, so they stay in the cache. It branches where a node has a "*" child; only below
// one does it follow all exact children. Every branch follows nodes that wildcard subscriptions
// have made, so the work is bounded by those that match the subject so far.
//
// Hashes cover the path from the root, so one pass over a subject gives the hash of every level.
// They are hints only: a node matches when its parent is the node of the level above and its text
// equals the element, a leaf when its subject has the same bytes. Equal hashes only cost time; the
// seed differs in every tree, so a peer cannot choose colliding subjects.
//
// A lookup only collects the leaves it reaches. The entries of each leaf are in the order of
// adding; a heap over the reached leaves merges them. During a walk, removing only marks the entry;
// the end of the last walk sweeps the marked ones.

#include "rv/message/SubjectTree.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <utility>

#include "rv/message/ShortText.h"

namespace kvx {

namespace {

bool isLast(SubjectView::Iterator at, SubjectView::Iterator end) {
    return ++at == end;
}

// The two halves of the 128-bit product, folded: every input bit reaches every output bit.
std::uint64_t foldedProduct(std::uint64_t a, std::uint64_t b) {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64U);
}

// Never 0, which marks nodes that are in no table.
std::uint32_t slotHash(std::uint64_t pathHash) {
    return static_cast<std::uint32_t>(pathHash >> 32U) | 1U << 31U;
}

bool sameText(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    return a.size() <= 16 ? wordsOf(a.data(), a.size()) == wordsOf(b.data(), b.size()) : a == b;
}

// Reserves room for `more` elements, growing geometrically.
template <class Element>
void makeRoomIn(std::vector<Element>& all, std::size_t more) {
    const std::size_t wanted = all.size() + more;
    if (all.capacity() < wanted) all.reserve(std::max(2 * all.capacity(), wanted));
}

// The same, with room in the list of free numbers for all elements.
template <class Element>
void makeRoomIn(std::vector<Element>& all, std::vector<std::uint32_t>& free, std::size_t more) {
    makeRoomIn(all, more);
    if (free.capacity() < all.capacity()) free.reserve(all.capacity());
}

// A free number, or that of a new element, for which room was reserved.
template <class Element>
std::uint32_t takeNumber(std::vector<std::uint32_t>& free, std::vector<Element>& all) noexcept {
    if (free.empty()) {
        all.emplace_back();
        return static_cast<std::uint32_t>(all.size() - 1);
    }
    const std::uint32_t number = free.back();
    free.pop_back();
    return number;
}

}  // namespace

SubjectIndex::SubjectIndex() : nodes_(kRoot + 1), leaves_(1) {
    std::random_device random;
    seed_ = static_cast<std::uint64_t>(random()) << 32U | random();
}

std::uint64_t SubjectIndex::extend(std::uint64_t pathHash, std::string_view element) const {
    constexpr std::uint64_t kMix = 0x9E3779B97F4A7C15U;
    const char* text = element.data();
    std::size_t left = element.size();
    std::uint64_t hash = pathHash ^ (left * kMix);
    for (; left > 16; left -= 16, text += 16) {
        hash = foldedProduct(loadWord(text) ^ hash, loadWord(text + 8) ^ seed_);
    }
    const auto [a, b] = wordsOf(text, left);
    return foldedProduct(a ^ hash, b ^ seed_ ^ kMix);
}

std::uint64_t SubjectIndex::hashOf(SubjectView subject) const {
    std::uint64_t pathHash = seed_;
    for (const std::string_view element : subject) pathHash = extend(pathHash, element);
    return pathHash;
}

std::string_view SubjectIndex::textOf(const Node& node) const {
    if (node.textLength <= kInlineText) return {node.text, node.textLength};
    std::uint32_t number;
    std::memcpy(&number, node.text, sizeof number);
    return longTexts_[number];
}

SubjectIndex::NodeId SubjectIndex::find(const SlotTable& table, NodeId parent,
                                        std::string_view element, std::uint64_t pathHash) const {
    return table.find(slotHash(pathHash), [this, parent, element](NodeId id) {
        return nodes_[id].parent == parent && sameText(textOf(nodes_[id]), element);
    });
}

SubjectIndex::NodeId SubjectIndex::findChild(NodeId parent, std::string_view element,
                                             std::uint64_t pathHash) const {
    const bool isPattern = nodes_[parent].isPattern;
    return find(isPattern ? patternChildren_ : literalChildren_, parent, element, pathHash);
}

SlotTable& SubjectIndex::childrenOf(NodeId parent) {
    return nodes_[parent].isPattern ? patternChildren_ : literalChildren_;
}

SubjectIndex::LeafId SubjectIndex::findExact(SubjectView subject, std::uint64_t pathHash) const {
    return exact_.find(slotHash(pathHash), [this, subject](LeafId id) {
        const std::uint8_t* const known = leaves_[id].subjectBytes();
        return SubjectView::trusted(known).length() == subject.length() &&
               std::memcmp(known, subject.data(), subject.length()) == 0;
    });
}

SubjectIndex::LeafId SubjectIndex::locate(SubjectView subject) const {
    if (!subject.hasWildcards()) return findExact(subject, hashOf(subject));
    NodeId id = kRoot;
    std::uint64_t pathHash = seed_;
    const auto end = subject.end();
    for (auto at = subject.begin(); at != end && id != 0; ++at) {
        const std::string_view element = *at;
        pathHash = extend(pathHash, element);
        if (element == kAnyElement) {
            id = nodes_[id].any;
        } else if (element == kAnyTrailingElements && isLast(at, end)) {
            id = nodes_[id].rest;
        } else {
            id = findChild(id, element, pathHash);
        }
    }
    return id == 0 ? 0 : nodes_[id].leaf;
}

std::span<SubjectIndex::Entry> SubjectIndex::entriesOf(LeafId id) {
    Leaf& leaf = leaves_[id];
    if (leaf.state == Leaf::kList) return lists_[leaf.entry.order];
    return {&leaf.entry, leaf.state == Leaf::kOne ? 1U : 0U};
}

// After `makeRoom` only three allocations may fail: a long text, a long subject and a list of
// entries. Each precedes the change that needs it, so a failure leaves at most a path without a
// leaf.
void SubjectIndex::add(SubjectView subject, void* subscription) {
    makeRoom(subject);
    NodeId id = kRoot;
    std::uint64_t pathHash = seed_;
    const auto end = subject.end();
    try {
        for (auto at = subject.begin(); at != end; ++at) {
            id = childFor(id, *at, isLast(at, end), pathHash);
        }
        appendEntry(leafFor(id, subject), {subscription, nextOrder_});
    } catch (...) {
        prune(id);
        throw;
    }
    ++nextOrder_;
    ++size_;
}

void SubjectIndex::makeRoom(SubjectView subject) {
    const std::size_t elements = subject.count();
    makeRoomIn(nodes_, freeNodes_, elements);
    makeRoomIn(longTexts_, freeTexts_, elements);
    makeRoomIn(leaves_, freeLeaves_, 1);
    makeRoomIn(lists_, freeLists_, 1);
    if (dirty_.capacity() < leaves_.capacity()) dirty_.reserve(leaves_.capacity());
    for (SlotTable* table : {&literalChildren_, &patternChildren_, &wildcardPaths_})
        table->makeRoom(elements);
    exact_.makeRoom(1);
}

SubjectIndex::NodeId SubjectIndex::childFor(NodeId parent, std::string_view element, bool last,
                                            std::uint64_t& pathHash) {
    pathHash = extend(pathHash, element);
    if (element == kAnyElement || (last && element == kAnyTrailingElements)) {
        NodeId id = wildcardLink(parent, element);
        if (id == 0) {
            id = newNode(parent, element);
            wildcardLink(parent, element) = id;
            nodes_[id].isPattern = true;
            countWildcard(parent, true);
        }
        return id;
    }
    if (const NodeId found = findChild(parent, element, pathHash); found != 0) return found;
    const NodeId id = newNode(parent, element);
    Node& node = nodes_[id];
    node.hash = slotHash(pathHash);
    node.next = std::exchange(nodes_[parent].firstChild, id);
    if (node.next != 0) nodes_[node.next].previous = id;
    childrenOf(parent).insert(node.hash, id);
    return id;
}

SubjectIndex::NodeId& SubjectIndex::wildcardLink(NodeId parent, std::string_view element) {
    return element == kAnyElement ? nodes_[parent].any : nodes_[parent].rest;
}

// Counts an added or removed wildcard child of `id` in it and all nodes above.
void SubjectIndex::countWildcard(NodeId id, bool isAdded) {
    for (; id != 0; id = nodes_[id].parent) {
        Node& node = nodes_[id];
        const bool isListed = node.hash != 0 && !node.isPattern;
        if (isAdded) {
            if (node.wildcardsBelow++ == 0 && isListed) wildcardPaths_.insert(node.hash, id);
        } else {
            if (--node.wildcardsBelow == 0 && isListed) wildcardPaths_.erase(node.hash, id);
        }
    }
}

SubjectIndex::NodeId SubjectIndex::newNode(NodeId parent, std::string_view element) {
    const bool isLong = element.size() > kInlineText;
    std::string longText(isLong ? element : std::string_view());
    const NodeId id = takeNumber(freeNodes_, nodes_);
    Node& node = nodes_[id] = Node{};
    node.parent = parent;
    node.isPattern = nodes_[parent].isPattern;
    node.textLength = static_cast<std::uint8_t>(element.size());
    if (!isLong) {
        std::memcpy(node.text, element.data(), element.size());
        return id;
    }
    const std::uint32_t number = takeNumber(freeTexts_, longTexts_);
    longTexts_[number] = std::move(longText);
    std::memcpy(node.text, &number, sizeof number);
    return id;
}

SubjectIndex::LeafId SubjectIndex::leafFor(NodeId id, SubjectView subject) {
    if (nodes_[id].leaf != 0) return nodes_[id].leaf;
    const bool isExact = !nodes_[id].isPattern;
    std::unique_ptr<std::uint8_t[]> longSubject;
    if (isExact && subject.length() > sizeof Leaf::subject) {
        longSubject = std::make_unique<std::uint8_t[]>(subject.length());
    }
    const LeafId leafId = takeNumber(freeLeaves_, leaves_);
    nodes_[id].leaf = leafId;
    Leaf& leaf = leaves_[leafId];
    leaf.node = id;
    if (!isExact) return leafId;
    leaf.longSubject = std::move(longSubject);
    std::uint8_t* const copy = leaf.longSubject ? leaf.longSubject.get() : leaf.subject;
    std::memcpy(copy, subject.data(), subject.length());
    exact_.insert(nodes_[id].hash, leafId);
    return leafId;
}

void SubjectIndex::appendEntry(LeafId id, Entry entry) {
    Leaf& leaf = leaves_[id];
    if (leaf.state == Leaf::kNone) {
        leaf.entry = entry;
        leaf.state = Leaf::kOne;
        return;
    }
    if (leaf.state == Leaf::kOne) {
        std::vector<Entry> both{leaf.entry, entry};
        const std::uint32_t number = takeNumber(freeLists_, lists_);
        lists_[number] = std::move(both);
        leaf.entry = {nullptr, number};
        leaf.state = Leaf::kList;
        return;
    }
    lists_[leaf.entry.order].push_back(entry);
}

bool SubjectIndex::remove(SubjectView subject, const void* subscription) noexcept {
    const LeafId id = locate(subject);
    if (id == 0) return false;
    const std::span<Entry> entries = entriesOf(id);
    for (std::size_t i = entries.size(); i-- > 0;) {
        if (entries[i].subscription != subscription) continue;
        --size_;
        if (walks_ == 0) {
            eraseEntry(id, i);
            dropLeaf(id);
        } else {
            entries[i].subscription = nullptr;
            if (!std::exchange(leaves_[id].isDirty, true)) dirty_.push_back(id);
        }
        return true;
    }
    return false;
}

void SubjectIndex::eraseEntry(LeafId id, std::size_t position) {
    Leaf& leaf = leaves_[id];
    if (leaf.state == Leaf::kList) {
        const auto number = static_cast<std::uint32_t>(leaf.entry.order);
        std::vector<Entry>& list = lists_[number];
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(position));
        if (!list.empty()) return;
        list = {};
        freeLists_.push_back(number);
    }
    leaf.state = Leaf::kNone;
}

void SubjectIndex::sweep(LeafId id) {
    if (leaves_[id].state == Leaf::kList) {
        auto& list = lists_[leaves_[id].entry.order];
        const auto isRemoved = [](const Entry& entry) { return entry.subscription == nullptr; };
        list.erase(std::remove_if(list.begin() + 1, list.end(), isRemoved), list.end());
    }
    const std::span<Entry> entries = entriesOf(id);
    if (!entries.empty() && entries[0].subscription == nullptr) eraseEntry(id, 0);
}

// Frees a leaf without entries, and the nodes that only it needed.
void SubjectIndex::dropLeaf(LeafId id) {
    Leaf& leaf = leaves_[id];
    if (leaf.state != Leaf::kNone) return;
    const NodeId node = leaf.node;
    if (!nodes_[node].isPattern) exact_.erase(nodes_[node].hash, id);
    leaf = Leaf{};
    freeLeaves_.push_back(id);
    nodes_[node].leaf = 0;
    prune(node);
}

void SubjectIndex::prune(NodeId id) {
    while (id != kRoot) {
        const Node& node = nodes_[id];
        if (node.leaf != 0 || node.firstChild != 0 || node.any != 0 || node.rest != 0) return;
        const NodeId parent = node.parent;
        unlink(id);
        id = parent;
    }
}

void SubjectIndex::unlink(NodeId id) {
    Node& node = nodes_[id];
    Node& parent = nodes_[node.parent];
    if (parent.any == id || parent.rest == id) {
        (parent.any == id ? parent.any : parent.rest) = 0;
        countWildcard(node.parent, false);
    } else {
        childrenOf(node.parent).erase(node.hash, id);
        (node.previous != 0 ? nodes_[node.previous].next : parent.firstChild) = node.next;
        if (node.next != 0) nodes_[node.next].previous = node.previous;
    }
    if (node.textLength > kInlineText) {
        std::uint32_t number;
        std::memcpy(&number, node.text, sizeof number);
        longTexts_[number] = std::string();
        freeTexts_.push_back(number);
    }
    node = Node{};
    freeNodes_.push_back(id);
}

void SubjectIndex::reach(LeafId id) {
    if (id == 0) return;
    const std::span<Entry> entries = entriesOf(id);
    if (!entries.empty()) reached_.push_back({id, 0, entries[0].order});
}

void SubjectIndex::collectMatches(SubjectView subject, Root root) {
    std::array<std::uint64_t, kMaxSubjectElements + 1> hashes;  // of the path above each level
    std::uint64_t* last = hashes.data();
    *last = seed_;
    for (const std::string_view element : subject) {
        const std::uint64_t above = *last;
        *++last = extend(above, element);
    }
    exact_.prefetch(slotHash(*last));
    if (nodes_[kRoot].wildcardsBelow != 0) collectWildcards(subject, root, hashes.data());
    reach(findExact(subject, *last));
}

void SubjectIndex::collectWildcards(SubjectView subject, Root root, const std::uint64_t* hashes) {
    NodeId id = kRoot;
    bool isOpen = root == Root::kAny;  // for wildcards at this level
    const auto end = subject.end();
    for (auto at = subject.begin(); at != end && id != 0; isOpen = true) {
        const Node& node = nodes_[id];
        const std::string_view element = *at;
        ++at;
        if (isOpen && node.rest != 0) reach(nodes_[node.rest].leaf);
        if (isOpen && node.any != 0) {
            collectBelowAny(node.any, at, end, extend(*hashes, kAnyElement));
        }
        ++hashes;
        id = find(wildcardPaths_, id, element, *hashes);
    }
}

// Recursion depth: the subject's "*" levels in the tree, 102 at most.
void SubjectIndex::collectBelowAny(NodeId id, SubjectView::Iterator at, SubjectView::Iterator end,
                                   std::uint64_t pathHash) {
    while (at != end) {
        const Node& node = nodes_[id];
        const std::string_view element = *at;
        ++at;
        if (node.rest != 0) reach(nodes_[node.rest].leaf);
        if (node.any != 0) collectBelowAny(node.any, at, end, extend(pathHash, kAnyElement));
        if (node.firstChild == 0) return;
        pathHash = extend(pathHash, element);
        id = findChild(id, element, pathHash);
        if (id == 0) return;
    }
    reach(nodes_[id].leaf);
}

// Covered by a wildcard child of `parent`.
bool SubjectIndex::isCovered(NodeId parent, std::string_view element) const {
    return parent != kRoot || (element != kInboxElement && element != kReservedElement);
}

void SubjectIndex::collectCovered(NodeId id, SubjectView::Iterator at, SubjectView::Iterator end,
                                  std::uint64_t pathHash) {
    if (at == end) return reach(nodes_[id].leaf);
    const std::string_view element = *at;
    if (element == kAnyTrailingElements && isLast(at, end)) return collectBelow(id);
    ++at;
    if (element != kAnyElement) {
        pathHash = extend(pathHash, element);
        const NodeId child = findChild(id, element, pathHash);
        if (child != 0) collectCovered(child, at, end, pathHash);
        return;
    }
    for (NodeId child = nodes_[id].firstChild; child != 0; child = nodes_[child].next) {
        const std::string_view text = textOf(nodes_[child]);
        if (isCovered(id, text)) collectCovered(child, at, end, extend(pathHash, text));
    }
    const NodeId any = nodes_[id].any;
    if (any != 0) collectCovered(any, at, end, extend(pathHash, kAnyElement));
}

void SubjectIndex::collectBelow(NodeId id) {
    const auto take = [this, id](NodeId child) {
        if (child == 0 || !isCovered(id, textOf(nodes_[child]))) return;
        reach(nodes_[child].leaf);
        collectBelow(child);
    };
    for (NodeId child = nodes_[id].firstChild; child != 0; child = nodes_[child].next) take(child);
    take(nodes_[id].any);
    take(nodes_[id].rest);
}

void SubjectIndex::endWalk(std::size_t base) {
    reached_.resize(base);
    if (--walks_ != 0) return;
    for (const LeafId id : dirty_) {
        leaves_[id].isDirty = false;
        sweep(id);
        dropLeaf(id);
    }
    dirty_.clear();
}

SubjectIndex::Walk::Walk(SubjectIndex& index)
    : index_(index), base_(index.reached_.size()), limit_(index.nextOrder_) {
    ++index_.walks_;
}

SubjectIndex::Walk::~Walk() {
    index_.endWalk(base_);
}

void SubjectIndex::Walk::match(SubjectView subject, Root root) {
    index_.collectMatches(subject, root);
    start();
}

void SubjectIndex::Walk::matchExact(SubjectView subject) {
    index_.reach(index_.locate(subject));
}

void SubjectIndex::Walk::matchCovered(SubjectView pattern) {
    index_.collectCovered(kRoot, pattern.begin(), pattern.end(), index_.seed_);
    start();
}

void SubjectIndex::Walk::start() {
    auto& reached = index_.reached_;
    if (reached.size() - base_ < 2) return;
    std::make_heap(reached.begin() + static_cast<std::ptrdiff_t>(base_), reached.end(), Later{});
}

void* SubjectIndex::Walk::next() {
    switch (index_.reached_.size() - base_) {
        case 0:
            return nullptr;
        case 1:
            return nextOfOne();
        default:
            return nextOfMany();
    }
}

void* SubjectIndex::Walk::nextOfOne() {
    Cursor& cursor = index_.reached_[base_];
    const std::span<Entry> entries = index_.entriesOf(cursor.leaf);
    while (cursor.position < entries.size()) {
        const Entry entry = entries[cursor.position++];
        if (entry.order >= limit_) break;
        if (entry.subscription != nullptr) return entry.subscription;
    }
    index_.reached_.pop_back();
    return nullptr;
}

void* SubjectIndex::Walk::nextOfMany() {
    auto& reached = index_.reached_;
    while (reached.size() > base_) {
        const auto first = reached.begin() + static_cast<std::ptrdiff_t>(base_);
        std::pop_heap(first, reached.end(), Later{});
        Cursor& cursor = reached.back();
        const std::span<Entry> entries = index_.entriesOf(cursor.leaf);
        void* const subscription = entries[cursor.position++].subscription;
        if (cursor.position < entries.size() && entries[cursor.position].order < limit_) {
            cursor.order = entries[cursor.position].order;
            std::push_heap(first, reached.end(), Later{});
        } else {
            reached.pop_back();
        }
        if (subscription != nullptr) return subscription;
    }
    return nullptr;
}

}  // namespace kvx
