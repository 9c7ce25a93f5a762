// Subscriptions by subject, and the questions that a message asks of them.
//
// The tree lives in two flat arrays. `nodes_` holds the nodes, one cache line each, and `slots_`
// finds the exact child of a node by its element. The hash of a slot covers the whole path from the
// root, not (parent, element): so a lookup knows the slots of all its levels before it has seen one
// node, and fetches them side by side. A slot is a hint only; a node is taken when its parent is
// the node of the level above and its text the element, so equal hashes cost time and no more. The
// seed differs in every tree: a peer cannot choose subjects that collide.
//
// "*" and a final ">" are children outside of `slots_`, one link each, so an exact lookup never
// sees them and a tree without wildcards pays one comparison a level for them. A lookup branches
// where a node has a "*" child and an exact one; every branch follows nodes that subscriptions have
// made, so the work is bounded by the wildcard subscriptions that agree with the subject so far.
//
// A lookup only notes the nodes it reaches. Each node's entries are in the order of adding already;
// a heap over the reached nodes merges them. While any walk is going on, removing marks the entry
// and leaves it, and the last walk sweeps what was marked.

#include "rv/message/SubjectIndex.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <utility>

#include "rv/message/ShortText.h"

namespace kvx {

namespace {

constexpr std::size_t kFirstSlots = 64;

bool isLast(SubjectView::Iterator at, SubjectView::Iterator end) {
    return ++at == end;
}

// The two halves of the 128-bit product, folded: every input bit reaches every output bit.
std::uint64_t foldedProduct(std::uint64_t a, std::uint64_t b) {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64U);
}

std::uint32_t slotHash(std::uint64_t pathHash) {
    return static_cast<std::uint32_t>(pathHash >> 32U);
}

bool before(std::uint64_t orderOfA, std::uint64_t orderOfB) {
    return orderOfA > orderOfB;  // std heaps keep the largest on top; here that is the earliest
}

}  // namespace

SubjectIndex::SubjectIndex() {
    std::random_device random;
    seed_ = static_cast<std::uint64_t>(random()) << 32U | random();
    nodes_.resize(kRoot + 1);
    slots_.resize(kFirstSlots);
}

// ---- finding ----

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

std::string_view SubjectIndex::textOf(const Node& node) const {
    if (node.textLength <= kInlineText) return {node.text, node.textLength};
    std::uint32_t number;
    std::memcpy(&number, node.text, sizeof number);
    return longTexts_[number];
}

bool SubjectIndex::holds(const Node& node, NodeId parent, std::string_view element) const {
    return node.parent == parent && textOf(node) == element;
}

SubjectIndex::NodeId SubjectIndex::find(NodeId parent, std::string_view element,
                                        std::uint32_t hash) const {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = hash & mask; slots_[i].node != 0; i = (i + 1) & mask) {
        const Slot slot = slots_[i];
        if (slot.hash == hash && holds(nodes_[slot.node], parent, element)) return slot.node;
    }
    return 0;
}

SubjectIndex::NodeId SubjectIndex::locate(SubjectView subject) const {
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
            id = find(id, element, slotHash(pathHash));
        }
    }
    return id;
}

std::span<SubjectIndex::Entry> SubjectIndex::entriesOf(NodeId id) {
    Node& node = nodes_[id];
    if (node.entryState == 2) return lists_[node.entry.order];
    return {&node.entry, node.entryState};
}

// ---- adding ----

void SubjectIndex::add(SubjectView subject, void* subscription) {
    NodeId id = kRoot;
    std::uint64_t pathHash = seed_;
    const auto end = subject.end();
    for (auto at = subject.begin(); at != end; ++at) {
        id = childFor(id, *at, isLast(at, end), pathHash);
    }
    appendEntry(id, {subscription, nextOrder_++});
    ++size_;
}

SubjectIndex::NodeId SubjectIndex::childFor(NodeId parent, std::string_view element, bool last,
                                            std::uint64_t& pathHash) {
    pathHash = extend(pathHash, element);
    if (element == kAnyElement || (last && element == kAnyTrailingElements)) {
        NodeId id = wildcardLink(parent, element);
        if (id == 0) {
            id = newNode(parent, element);
            wildcardLink(parent, element) = id;
        }
        return id;
    }
    const std::uint32_t hash = slotHash(pathHash);
    if (const NodeId found = find(parent, element, hash); found != 0) return found;
    const NodeId id = newNode(parent, element);
    Node& node = nodes_[id];
    node.hash = hash;
    node.next = std::exchange(nodes_[parent].firstChild, id);
    if (node.next != 0) nodes_[node.next].previous = id;
    if ((usedSlots_ + 1) * 2 > slots_.size()) growSlots();
    insertSlot({hash, id});
    ++usedSlots_;
    return id;
}

SubjectIndex::NodeId& SubjectIndex::wildcardLink(NodeId parent, std::string_view element) {
    return element == kAnyElement ? nodes_[parent].any : nodes_[parent].rest;
}

SubjectIndex::NodeId SubjectIndex::newNode(NodeId parent, std::string_view element) {
    NodeId id = 0;
    if (freeNodes_.empty()) {
        id = static_cast<NodeId>(nodes_.size());
        nodes_.emplace_back();
    } else {
        id = freeNodes_.back();
        freeNodes_.pop_back();
    }
    Node& node = nodes_[id] = Node{};
    node.parent = parent;
    node.textLength = static_cast<std::uint8_t>(element.size());
    if (element.size() <= kInlineText) {
        std::memcpy(node.text, element.data(), element.size());
        return id;
    }
    std::uint32_t number = 0;
    if (freeTexts_.empty()) {
        number = static_cast<std::uint32_t>(longTexts_.size());
        longTexts_.emplace_back(element);
    } else {
        number = freeTexts_.back();
        freeTexts_.pop_back();
        longTexts_[number] = element;
    }
    std::memcpy(node.text, &number, sizeof number);
    return id;
}

void SubjectIndex::appendEntry(NodeId id, Entry entry) {
    Node& node = nodes_[id];
    if (node.entryState == 0) {
        node.entry = entry;
        node.entryState = 1;
        return;
    }
    if (node.entryState == 1) {
        std::uint32_t number = 0;
        if (freeLists_.empty()) {
            number = static_cast<std::uint32_t>(lists_.size());
            lists_.emplace_back();
        } else {
            number = freeLists_.back();
            freeLists_.pop_back();
        }
        lists_[number].push_back(node.entry);
        node.entry = {nullptr, number};
        node.entryState = 2;
    }
    lists_[node.entry.order].push_back(entry);
}

void SubjectIndex::insertSlot(Slot slot) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = slot.hash & mask;
    while (slots_[i].node != 0) i = (i + 1) & mask;
    slots_[i] = slot;
}

void SubjectIndex::growSlots() {
    const std::vector<Slot> old = std::exchange(slots_, std::vector<Slot>(slots_.size() * 2));
    for (const Slot slot : old) {
        if (slot.node != 0) insertSlot(slot);
    }
}

// ---- removing ----

bool SubjectIndex::remove(SubjectView subject, const void* subscription) {
    const NodeId id = locate(subject);
    if (id == 0) return false;
    const std::span<Entry> entries = entriesOf(id);
    for (std::size_t i = entries.size(); i-- > 0;) {
        if (entries[i].subscription != subscription) continue;
        --size_;
        if (walks_ == 0) {
            eraseEntry(id, i);
            prune(id);
        } else {
            entries[i].subscription = nullptr;
            dirty_.push_back(id);
        }
        return true;
    }
    return false;
}

void SubjectIndex::eraseEntry(NodeId id, std::size_t position) {
    Node& node = nodes_[id];
    if (node.entryState == 2) {
        const auto number = static_cast<std::uint32_t>(node.entry.order);
        std::vector<Entry>& list = lists_[number];
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(position));
        if (!list.empty()) return;
        list.shrink_to_fit();
        freeLists_.push_back(number);
    }
    node.entryState = 0;
}

void SubjectIndex::sweep(NodeId id) {
    for (std::size_t i = entriesOf(id).size(); i-- > 0;) {
        if (entriesOf(id)[i].subscription == nullptr) eraseEntry(id, i);
    }
}

bool SubjectIndex::isEmpty(const Node& node) {
    return node.entryState == 0 && node.firstChild == 0 && node.any == 0 && node.rest == 0;
}

void SubjectIndex::prune(NodeId id) {
    while (id != kRoot && isEmpty(nodes_[id])) {
        const NodeId parent = nodes_[id].parent;
        unlink(id);
        id = parent;
    }
}

void SubjectIndex::unlink(NodeId id) {
    Node& node = nodes_[id];
    Node& parent = nodes_[node.parent];
    if (parent.any == id) {
        parent.any = 0;
    } else if (parent.rest == id) {
        parent.rest = 0;
    } else {
        eraseSlot(node, id);
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

// Moves later slots of the same run forward, so that no probe ends at the gap too early.
void SubjectIndex::eraseSlot(const Node& node, NodeId id) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t gap = node.hash & mask;
    while (slots_[gap].node != id) gap = (gap + 1) & mask;
    for (std::size_t i = (gap + 1) & mask; slots_[i].node != 0; i = (i + 1) & mask) {
        const std::size_t home = slots_[i].hash & mask;
        if (((i - home) & mask) < ((i - gap) & mask)) continue;
        slots_[gap] = slots_[i];
        gap = i;
    }
    slots_[gap] = {0, 0};
    --usedSlots_;
}

// ---- collecting what a subject reaches ----

void SubjectIndex::reach(NodeId id) {
    const std::span<Entry> entries = entriesOf(id);
    if (!entries.empty()) reached_.push_back({id, 0, entries[0].order});
}

void SubjectIndex::collectExactPath(SubjectView subject, Root root) {
    std::array<std::uint64_t, kMaxSubjectElements> hashes;
    const std::size_t mask = slots_.size() - 1;
    const auto end = subject.end();
    std::uint64_t pathHash = seed_;
    std::size_t level = 0;
    for (auto at = subject.begin(); at != end; ++at) {
        pathHash = extend(pathHash, *at);
        hashes[level++] = pathHash;
        __builtin_prefetch(&slots_[slotHash(pathHash) & mask]);
    }
    NodeId id = kRoot;
    level = 0;
    for (auto at = subject.begin(); at != end; ++at, ++level) {
        const Node& node = nodes_[id];
        if (level > 0 || root == Root::kAny) {
            if (node.rest != 0) reach(node.rest);
            if (node.any != 0) {
                auto below = at;
                collect(node.any, ++below, end,
                        extend(level == 0 ? seed_ : hashes[level - 1], kAnyElement));
            }
        }
        id = find(id, *at, slotHash(hashes[level]));
        if (id == 0) return;
    }
    reach(id);
}

// As deep as the subject has "*" levels in the tree, 102 at most.
void SubjectIndex::collect(NodeId id, SubjectView::Iterator at, SubjectView::Iterator end,
                           std::uint64_t pathHash) {
    while (at != end) {
        const Node& node = nodes_[id];
        const std::string_view element = *at;
        ++at;
        if (node.rest != 0) reach(node.rest);
        if (node.any != 0) collect(node.any, at, end, extend(pathHash, kAnyElement));
        if (node.firstChild == 0) return;
        pathHash = extend(pathHash, element);
        id = find(id, element, slotHash(pathHash));
        if (id == 0) return;
    }
    reach(id);
}

bool SubjectIndex::admitted(NodeId parent, std::string_view element, const Admit& admit) const {
    return parent != kRoot || admit(element);
}

void SubjectIndex::collectCovered(NodeId id, SubjectView::Iterator at, SubjectView::Iterator end,
                                  std::uint64_t pathHash, const Admit& admit) {
    if (at == end) return reach(id);
    const std::string_view element = *at;
    if (element == kAnyTrailingElements && isLast(at, end)) return collectBelow(id, admit);
    ++at;
    if (element != kAnyElement) {
        pathHash = extend(pathHash, element);
        const NodeId child = find(id, element, slotHash(pathHash));
        if (child != 0 && admitted(id, element, admit)) {
            collectCovered(child, at, end, pathHash, admit);
        }
        return;
    }
    for (NodeId child = nodes_[id].firstChild; child != 0; child = nodes_[child].next) {
        const std::string_view text = textOf(nodes_[child]);
        if (admitted(id, text, admit)) {
            collectCovered(child, at, end, extend(pathHash, text), admit);
        }
    }
    const NodeId any = nodes_[id].any;
    if (any != 0 && admitted(id, kAnyElement, admit)) {
        collectCovered(any, at, end, extend(pathHash, kAnyElement), admit);
    }
}

void SubjectIndex::collectBelow(NodeId id, const Admit& admit) {
    const auto take = [this, id, &admit](NodeId child) {
        if (child == 0 || !admitted(id, textOf(nodes_[child]), admit)) return;
        reach(child);
        collectBelow(child, admit);
    };
    for (NodeId child = nodes_[id].firstChild; child != 0; child = nodes_[child].next) take(child);
    take(nodes_[id].any);
    take(nodes_[id].rest);
}

void SubjectIndex::endWalk(std::size_t base) {
    reached_.resize(base);
    if (--walks_ != 0) return;
    for (const NodeId id : std::exchange(dirty_, {})) {
        if (id == kRoot || nodes_[id].parent == 0) continue;  // pruned with an earlier one
        sweep(id);
        prune(id);
    }
}

// ---- walking ----

SubjectIndex::Walk::Walk(SubjectIndex& index)
    : index_(index), base_(index.reached_.size()), limit_(index.nextOrder_) {
    ++index_.walks_;
}

SubjectIndex::Walk::~Walk() {
    index_.endWalk(base_);
}

void SubjectIndex::Walk::match(SubjectView subject, Root root) {
    index_.collectExactPath(subject, root);
    start();
}

void SubjectIndex::Walk::matchExact(SubjectView subject) {
    if (const NodeId id = index_.locate(subject); id != 0) index_.reach(id);
}

void SubjectIndex::Walk::matchCovered(SubjectView pattern, const Admit& admit) {
    index_.collectCovered(kRoot, pattern.begin(), pattern.end(), index_.seed_, admit);
    start();
}

void SubjectIndex::Walk::start() {
    auto& reached = index_.reached_;
    if (reached.size() - base_ < 2) return;
    std::make_heap(reached.begin() + static_cast<std::ptrdiff_t>(base_), reached.end(),
                   [](const Cursor& a, const Cursor& b) { return before(a.order, b.order); });
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
    const std::span<Entry> entries = index_.entriesOf(cursor.node);
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
    const auto later = [](const Cursor& a, const Cursor& b) { return before(a.order, b.order); };
    while (reached.size() > base_) {
        const auto first = reached.begin() + static_cast<std::ptrdiff_t>(base_);
        std::pop_heap(first, reached.end(), later);
        Cursor& cursor = reached.back();
        const std::span<Entry> entries = index_.entriesOf(cursor.node);
        void* const subscription = entries[cursor.position++].subscription;
        if (cursor.position < entries.size() && entries[cursor.position].order < limit_) {
            cursor.order = entries[cursor.position].order;
            std::push_heap(first, reached.end(), later);
        } else {
            reached.pop_back();
        }
        if (subscription != nullptr) return subscription;
    }
    return nullptr;
}

}  // namespace kvx
