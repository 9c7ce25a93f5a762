// Patterns as a tree of runs.
//
// A node stands for the elements from the root up to the end of its run. Patterns share a node as
// far as they are equal, so every node but the root has a pattern or at least two children: adding
// a pattern splits at most one run, and removing one joins at most one run with its only child's.
//
// Every node is the end of one path, so a search enters a node at most once: it branches where a
// node has both a "*" child and a fitting literal one, and its cost is bounded by the number of
// nodes. It keeps no stack: from a node it goes on with the next child, then with the parent. A
// parked search holds only its node, which is then neither freed nor joined away; its parents stay,
// for they have a child. What is added meanwhile, the search may find or not.

#include "rv/message/PatternTrie.h"

#include <algorithm>
#include <new>
#include <utility>

#include "rv/message/ShortText.h"

namespace kvx {

namespace {

bool isSame(std::string_view a, std::string_view b) {
    return a.size() == b.size() && sameText(a.data(), b.data(), a.size());
}

using Bytes = std::span<const std::uint8_t>;

std::string_view firstOf(Bytes run) {
    return *SubjectView::Iterator(run.data());
}

}  // namespace

PatternTrie::PatternTrie(const SubjectHash& hash) : hash_(hash) {
    nodes_.makeRoom(1);
    static_cast<void>(nodes_.take());
}

// Whether the run of `node`, whose first element does, matches the elements of `subject` that come
// after its parent's.
bool PatternTrie::fits(const Node& node, SubjectElements& subject) {
    if (node.end > subject.count()) return false;
    if (node.length == 1) return true;
    SubjectView::Iterator at(node.run.view().data());
    const unsigned end = node.hasRest ? node.end - 1U : node.end;
    for (unsigned i = node.end - node.length + 1U; i < end; ++i) {
        const std::string_view element = *++at;
        if (element != kAnyElement && !isSame(element, subject[i])) return false;
    }
    return true;
}

std::uint32_t PatternTrie::slotHash(NodeId parent, std::uint64_t elementHash) {
    return SubjectHash::forSlot(SubjectHash::combined(elementHash, parent));
}

HashSlot* PatternTrie::slotOf(NodeId child) const {
    return literals_.find(nodes_[child].hash,
                          [child](const HashSlot& slot) { return slot.number == child; });
}

PatternTrie::NodeId PatternTrie::literalChild(NodeId parent, SubjectElements& path,
                                              unsigned at) const {
    const auto isMeant = [&](const HashSlot& slot) {
        const Node& node = nodes_[slot.number];
        return node.parent == parent && isSame(firstOf(node.run.view()), path[at]);
    };
    const HashSlot* const slot = literals_.find(slotHash(parent, path.hash(at)), isMeant);
    return slot == nullptr ? 0 : slot->number;
}

// The child whose run begins with element `at` of the pattern `path`.
PatternTrie::NodeId PatternTrie::child(NodeId parent, SubjectElements& path, unsigned at) const {
    if (path.isRest(at)) return nodes_[parent].rest;
    if (path[at] == kAnyElement) return nodes_[parent].any;
    return literalChild(parent, path, at);
}

// The number of elements that a run and the pattern `path` share, from element `at` on.
unsigned PatternTrie::shared(const Node& node, SubjectElements& path, unsigned at) {
    SubjectView::Iterator element(node.run.view().data());
    unsigned count = 0;
    for (; count < node.length && at + count < path.count(); ++count, ++element) {
        const bool isRest = node.hasRest && count + 1 == node.length;
        if (*element != path[at + count] || isRest != path.isRest(at + count)) break;
    }
    return count;
}

PatternTrie::NodeId PatternTrie::add(SubjectView pattern, PatternId id) {
    SubjectElements path(pattern, hash_);
    nodes_.makeRoom(2);
    literals_.makeRoom();
    NodeId node = kRoot;
    for (unsigned at = 0; at < path.count();) {
        const NodeId next = child(node, path, at);
        if (next == 0) {
            try {
                node = hang(node, path, at);
            } catch (...) {
                tidy(node);
                throw;
            }
            break;
        }
        const unsigned length = shared(nodes_[next], path, at);
        node = length < nodes_[next].length ? split(next, length) : next;
        at += length;
    }
    nodes_[node].pattern = id;
    return node;
}

// A new child of `parent` for the elements of `path` from `from` on.
PatternTrie::NodeId PatternTrie::hang(NodeId parent, SubjectElements& path, unsigned from) {
    const NodeId id = nodes_.take();
    Node& node = nodes_[id];
    try {
        node.run.assign(path.bytes(from, path.count()));
    } catch (...) {
        nodes_.give(id);
        throw;
    }
    node.end = static_cast<std::uint8_t>(path.count());
    node.length = static_cast<std::uint8_t>(path.count() - from);
    node.hasRest = path.isRest(path.count() - 1);
    link(parent, id);
    return id;
}

// Puts a new node for the first `length` elements of the run of `lower` above it.
PatternTrie::NodeId PatternTrie::split(NodeId lower, unsigned length) {
    Node& node = nodes_[lower];
    const Bytes run = node.run.view();
    SubjectView::Iterator at(run.data());
    std::size_t size = 0;
    for (unsigned i = 0; i < length; ++i, ++at) size += run[size];
    Run rest;
    rest.assign(run.subspan(size));
    const NodeId id = nodes_.take();
    Node& upper = nodes_[id];
    try {
        upper.run.assign(run.first(size));
    } catch (...) {
        nodes_.give(id);
        throw;
    }
    replace(lower, id);
    node.run.take(rest);
    node.length = static_cast<std::uint8_t>(node.length - length);
    upper.length = static_cast<std::uint8_t>(length);
    upper.end = static_cast<std::uint8_t>(node.end - node.length);
    link(id, lower);
    return id;
}

void PatternTrie::link(NodeId parent, NodeId child) noexcept {
    Node& above = nodes_[parent];
    Node& node = nodes_[child];
    const std::string_view first = firstOf(node.run.view());
    node.parent = parent;
    ++above.children;
    above.childrenXor ^= child;
    if (node.hasRest && node.length == 1) {
        above.rest = child;
    } else if (first == kAnyElement) {
        above.any = child;
    } else {
        node.hash = slotHash(parent, hash_.ofBytes(first.data(), first.size()));
        literals_.insert({node.hash, child});
    }
}

void PatternTrie::unlink(NodeId child) noexcept {
    Node& above = nodes_[nodes_[child].parent];
    --above.children;
    above.childrenXor ^= child;
    if (above.rest == child) {
        above.rest = 0;
    } else if (above.any == child) {
        above.any = 0;
    } else {
        literals_.erase(slotOf(child));
    }
}

// Puts a node, whose run begins with the same element, in the place of `old` among its siblings.
void PatternTrie::replace(NodeId old, NodeId replacement) noexcept {
    const NodeId parent = nodes_[old].parent;
    Node& above = nodes_[parent];
    nodes_[replacement].parent = parent;
    nodes_[replacement].hash = nodes_[old].hash;
    above.childrenXor ^= old ^ replacement;
    if (above.rest == old) {
        above.rest = replacement;
    } else if (above.any == old) {
        above.any = replacement;
    } else {
        slotOf(old)->number = replacement;
    }
}

void PatternTrie::remove(NodeId node) noexcept {
    nodes_[node].pattern = 0;
    tidy(node);
}

// Frees the nodes from `id` up that are not needed any more.
void PatternTrie::tidy(NodeId id) noexcept {
    const auto isNeeded = [this, &id] {
        return id == kRoot || nodes_[id].parked != 0 || nodes_[id].pattern != 0;
    };
    while (!isNeeded() && nodes_[id].children == 0) {
        const NodeId parent = nodes_[id].parent;
        unlink(id);
        nodes_.give(id);
        id = parent;
    }
    if (isNeeded() || nodes_[id].children != 1) return;
    try {
        joinOnlyChild(id);
    } catch (const std::bad_alloc&) {
        // The two runs stay apart, which costs only memory.
        return;
    }
}

// The child keeps its number: searches may be parked there.
void PatternTrie::joinOnlyChild(NodeId id) {
    const Node& upper = nodes_[id];
    const NodeId lower = upper.childrenXor;
    Node& node = nodes_[lower];
    Run joined;
    joined.assign(upper.run.view(), node.run.view());
    unlink(lower);
    node.run.take(joined);
    node.length = static_cast<std::uint8_t>(node.length + upper.length);
    replace(id, lower);
    nodes_.give(id);
}

PatternTrie::PatternId PatternTrie::Search::step(const PatternTrie& trie,
                                                 SubjectElements& subject) {
    const Node& node = trie.nodes_[node_];
    switch (next_) {
        case Next::kRoot:
            next_ = isOpen_ ? Next::kAny : Next::kLiteral;
            return isOpen_ && node.rest != 0 ? trie.nodes_[node.rest].pattern : 0;
        case Next::kAny:
            next_ = Next::kLiteral;
            if (node.any != 0 && fits(trie.nodes_[node.any], subject)) {
                hasBranched_ = true;
                return enter(trie, subject, node.any);
            }
            [[fallthrough]];
        case Next::kLiteral:
            next_ = Next::kParent;
            if (node.children > (node.any != 0 ? 1U : 0U) + (node.rest != 0 ? 1U : 0U)) {
                const NodeId child = trie.literalChild(node_, subject, node.end);
                if (child != 0 && fits(trie.nodes_[child], subject)) {
                    return enter(trie, subject, child);
                }
            }
            [[fallthrough]];
        case Next::kParent:
            climb(trie);
    }
    return 0;
}

// The patterns that end at a fitting child or in the ">" below it.
PatternTrie::PatternId PatternTrie::Search::enter(const PatternTrie& trie,
                                                  const SubjectElements& subject, NodeId child) {
    const Node& node = trie.nodes_[child];
    node_ = child;
    const bool isEnd = node.hasRest || node.end == subject.count();
    next_ = isEnd ? Next::kParent : Next::kAny;
    if (isEnd) return node.pattern;
    return node.rest == 0 ? 0 : trie.nodes_[node.rest].pattern;
}

// To the nearest node whose "*" child has been searched, but not its literal ones.
void PatternTrie::Search::climb(const PatternTrie& trie) {
    next_ = Next::kLiteral;
    NodeId below = 0;
    do {
        below = node_;
        node_ = hasBranched_ ? trie.nodes_[node_].parent : 0;
    } while (node_ != 0 && trie.nodes_[node_].any != below);
}

void PatternTrie::Search::hold(PatternTrie& trie, NodeId node) noexcept {
    const NodeId old = std::exchange(held_, node);
    if (node != 0) ++trie.nodes_[node].parked;
    if (old != 0 && --trie.nodes_[old].parked == 0) trie.tidy(old);
}

}  // namespace kvx
