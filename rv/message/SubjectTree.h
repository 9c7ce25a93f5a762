#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "rv/message/SlotTable.h"
#include "rv/message/SubjectView.h"

namespace kvx {

/// The untyped store behind `SubjectTree`: nodes, their entries, and walks over the entries that
/// match a subject. Loop thread only.
class SubjectIndex {
  public:
    using NodeId = std::uint32_t;  // 0: none
    using LeafId = std::uint32_t;  // 0: none

    /// Whether the first element of a subscription may be a wildcard in a match.
    enum class Root : std::uint8_t { kAny, kLiteral };

    SubjectIndex();

    /// Throws `std::bad_alloc`; the index is then unchanged.
    void add(SubjectView subject, void* subscription);
    /// Needs no memory.
    [[nodiscard]] bool remove(SubjectView subject, const void* subscription) noexcept;
    std::size_t size() const { return size_; }

    /// The result of one match, step by step. Until the last walk ends, removed entries and nodes
    /// stay in place, marked, so the positions of all walks stay valid. Walks nest and end in
    /// reverse order.
    class Walk {
      public:
        explicit Walk(SubjectIndex& index);
        Walk(const Walk&) = delete;
        Walk& operator=(const Walk&) = delete;
        ~Walk();

        void match(SubjectView subject, Root root);
        void matchExact(SubjectView subject);
        void matchCovered(SubjectView pattern);

        /// The next subscription in the order of adding, or null at the end.
        void* next();

      private:
        void start();
        void* nextOfOne();
        void* nextOfMany();

        SubjectIndex& index_;
        std::size_t base_;     // where this walk's part of `reached_` begins
        std::uint64_t limit_;  // entries added from here on are not visited
    };

  private:
    struct Entry {
        void* subscription;   // null once removed under a walk
        std::uint64_t order;  // position in the order of adding
    };

    /// The subscriptions of one subject, and that subject: two neighbouring cache lines. A single
    /// entry is in the leaf; with more, `entry.order` is the number of their list.
    struct alignas(64) Leaf {
        enum State : std::uint16_t { kNone, kOne, kList };

        Entry entry{nullptr, 0};
        NodeId node = 0;
        State state = kNone;
        bool isDirty = false;                         // in `dirty_`
        std::unique_ptr<std::uint8_t[]> longSubject;  // a subject longer than `subject`
        std::uint8_t subject[96] = {};                // encoded; unused for a pattern

        const std::uint8_t* subjectBytes() const {
            return longSubject ? longSubject.get() : subject;
        }
    };

    /// One node of the tree, one cache line. Texts above `kInlineText` characters are in
    /// `longTexts_`; `text` then begins with their number.
    struct alignas(64) Node {
        NodeId parent = 0;
        std::uint32_t hash = 0;  // of the path from the root; 0 for "*", ">" and the root
        NodeId any = 0;          // the "*" child
        NodeId rest = 0;         // the ">" child
        NodeId firstChild = 0;   // exact children, linked through next and previous
        NodeId next = 0;
        NodeId previous = 0;
        LeafId leaf = 0;
        std::uint32_t wildcardsBelow = 0;  // "*" and ">" children here and further down
        bool isPattern = false;            // a wildcard is on the path, here or above
        std::uint8_t textLength = 0;
        char text[26] = {};
    };
    static constexpr std::size_t kInlineText = sizeof(Node::text);
    static constexpr NodeId kRoot = 1;

    /// The position of a walk in one leaf's entries.
    struct Cursor {
        LeafId leaf;
        std::uint32_t position;
        std::uint64_t order;  // of the entry at `position`
    };

    /// Orders a heap with the earliest cursor on top.
    struct Later {
        bool operator()(const Cursor& a, const Cursor& b) const { return a.order > b.order; }
    };

    std::uint64_t extend(std::uint64_t pathHash, std::string_view element) const;
    std::uint64_t hashOf(SubjectView subject) const;
    std::string_view textOf(const Node& node) const;
    NodeId find(const SlotTable& table, NodeId parent, std::string_view element,
                std::uint64_t pathHash) const;
    NodeId findChild(NodeId parent, std::string_view element, std::uint64_t pathHash) const;
    SlotTable& childrenOf(NodeId parent);
    LeafId findExact(SubjectView subject, std::uint64_t pathHash) const;
    LeafId locate(SubjectView subject) const;
    std::span<Entry> entriesOf(LeafId id);

    void makeRoom(SubjectView subject);
    NodeId newNode(NodeId parent, std::string_view element);
    NodeId childFor(NodeId parent, std::string_view element, bool last, std::uint64_t& pathHash);
    NodeId& wildcardLink(NodeId parent, std::string_view element);
    void countWildcard(NodeId id, bool isAdded);
    LeafId leafFor(NodeId id, SubjectView subject);
    void appendEntry(LeafId id, Entry entry);
    void eraseEntry(LeafId id, std::size_t position);
    void sweep(LeafId id);
    void dropLeaf(LeafId id);
    void prune(NodeId id);
    void unlink(NodeId id);

    void reach(LeafId id);
    void collectMatches(SubjectView subject, Root root);
    void collectWildcards(SubjectView subject, Root root, const std::uint64_t* hashes);
    void collectBelowAny(NodeId id, SubjectView::Iterator at, SubjectView::Iterator end,
                         std::uint64_t pathHash);
    void collectCovered(NodeId id, SubjectView::Iterator at, SubjectView::Iterator end,
                        std::uint64_t pathHash);
    void collectBelow(NodeId id);
    bool isCovered(NodeId parent, std::string_view element) const;
    void endWalk(std::size_t base);

    // The lists of free numbers have room for every number, and `dirty_` for every leaf.
    std::uint64_t seed_;
    std::vector<Node> nodes_;
    std::vector<NodeId> freeNodes_;
    std::vector<Leaf> leaves_;
    std::vector<LeafId> freeLeaves_;
    // Exact children by the hash of their path: of literal nodes, and of nodes below a wildcard.
    // The third table has the nodes of the first with wildcards below them.
    SlotTable literalChildren_;
    SlotTable patternChildren_;
    SlotTable wildcardPaths_;
    SlotTable exact_;  // leaves of subjects without wildcards, by the same hash
    std::vector<std::vector<Entry>> lists_;
    std::vector<std::uint32_t> freeLists_;
    std::vector<std::string> longTexts_;
    std::vector<std::uint32_t> freeTexts_;
    std::size_t size_ = 0;
    std::uint64_t nextOrder_ = 0;

    // Walks in progress: a stack of their cursors, and the leaves to sweep.
    std::vector<Cursor> reached_;
    std::vector<LeafId> dirty_;
    unsigned walks_ = 0;
};

/// A subject tree: finds the subscriptions that match a subject.
///
/// One level per element; every node keeps its exact children, a "*" child, the subscriptions that
/// end there and those that end in ">" there. A lookup costs one hash probe per element and, where
/// such subscriptions exist, one step for "*" and ">", whatever the number of subscriptions; it
/// allocates nothing once the tree has seen a match as wide as this one.
///
/// The four kinds of match, and their uses:
///
///   match            every subscription, wildcards included           ordinary subjects
///   matchLiteralRoot the same, but first elements must be equal       the daemon's inbox messages
///   matchExact       only subscriptions on this very subject          the client's inbox messages
///   matchCovered     a pattern: every subscription of which       messages on wildcard subjects
///                    each subject matches the pattern
///
/// Each calls `visit(Subscription&)` once for every match, in the order of adding, and returns the
/// number of calls. `visit` may return bool: false ends the match. `visit` may add and remove
/// subscriptions and start another match: an added one is not visited, nor is a removed one. The
/// tree itself must outlive the call. Not thread-safe: loop thread only.
template <class Subscription>
class SubjectTree {
  public:
    SubjectTree() = default;
    SubjectTree(const SubjectTree&) = delete;
    SubjectTree& operator=(const SubjectTree&) = delete;
    ~SubjectTree() = default;

    /// Adds `subscription` under `subject`, which is copied. The tree keeps the pointer, which must
    /// be removed before the subscription is destroyed. Adding one pointer twice under one subject
    /// counts twice: it is visited twice and removed twice. Throws `std::bad_alloc`; the tree is
    /// then unchanged.
    void add(SubjectView subject, Subscription* subscription) { index_.add(subject, subscription); }

    /// Undoes the latest `add`; allocates nothing. Returns false, and changes nothing, when there
    /// was none. Linear in the number of subscriptions on this very subject.
    [[nodiscard]] bool remove(SubjectView subject, const Subscription* subscription) noexcept {
        return index_.remove(subject, subscription);
    }

    /// The number of subscriptions, each `add` counted.
    std::size_t size() const { return index_.size(); }

    template <class Visit>
    std::size_t match(SubjectView subject, Visit&& visit) const {
        SubjectIndex::Walk walk(index_);
        walk.match(subject, SubjectIndex::Root::kAny);
        return visitAll(walk, visit);
    }

    template <class Visit>
    std::size_t matchLiteralRoot(SubjectView subject, Visit&& visit) const {
        SubjectIndex::Walk walk(index_);
        walk.match(subject, SubjectIndex::Root::kLiteral);
        return visitAll(walk, visit);
    }

    template <class Visit>
    std::size_t matchExact(SubjectView subject, Visit&& visit) const {
        SubjectIndex::Walk walk(index_);
        walk.matchExact(subject);
        return visitAll(walk, visit);
    }

    /// Wildcards in the first element of the pattern do not cover "_INBOX" and "_RV": private and
    /// reserved subjects are reached only by patterns that name them.
    template <class Visit>
    std::size_t matchCovered(SubjectView pattern, Visit&& visit) const {
        SubjectIndex::Walk walk(index_);
        walk.matchCovered(pattern);
        return visitAll(walk, visit);
    }

  private:
    template <class Visit>
    static std::size_t visitAll(SubjectIndex::Walk& walk, Visit& visit) {
        std::size_t visited = 0;
        while (void* const found = walk.next()) {
            ++visited;
            auto& subscription = *static_cast<Subscription*>(found);
            if constexpr (std::is_same_v<decltype(visit(subscription)), bool>) {
                if (!visit(subscription)) break;
            } else {
                visit(subscription);
            }
        }
        return visited;
    }

    mutable SubjectIndex index_;  // a match keeps its state inside
};

}  // namespace kvx
