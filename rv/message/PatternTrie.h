#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "rv/message/NumberedPool.h"
#include "rv/message/ShortBytes.h"
#include "rv/message/SlotTable.h"
#include "rv/message/SubjectHash.h"
#include "rv/message/SubjectView.h"

namespace kvx {

/// The elements of a subject with their hashes, each found when it is first needed. Borrows the
/// subject and `hash`.
class SubjectElements {
  public:
    SubjectElements(SubjectView subject, const SubjectHash& hash)
        : hash_(hash), count_(subject.count()) {
        records_[0] = static_cast<const std::uint8_t*>(subject.data()) + kSubjectHeaderBytes;
    }
    SubjectElements(const SubjectElements&) = delete;
    SubjectElements& operator=(const SubjectElements&) = delete;

    [[nodiscard]] unsigned count() const { return count_; }
    [[nodiscard]] std::string_view operator[](unsigned i) {
        return *SubjectView::Iterator(record(i));
    }
    [[nodiscard]] std::uint64_t hash(unsigned i) {
        record(i + 1);
        return hashes_[i];
    }
    /// The encoded elements from `first` up to and without `end`.
    [[nodiscard]] std::span<const std::uint8_t> bytes(unsigned first, unsigned end) {
        const std::uint8_t* const last = record(end);
        return {records_[first], last};
    }
    /// Whether element `i` is the wildcard ">": elsewhere than at the end it is ordinary.
    [[nodiscard]] bool isRest(unsigned i) {
        return i + 1 == count_ && (*this)[i] == kAnyTrailingElements;
    }

  private:
    const std::uint8_t* record(unsigned i) {
        for (; known_ < i; ++known_) {
            const std::uint8_t* const at = records_[known_];
            hashes_[known_] = hash_.ofBytes(at + 1, at[0] - std::size_t{kSubjectElementExtra});
            records_[known_ + 1] = at + at[0];
        }
        return records_[i];
    }

    const SubjectHash& hash_;
    unsigned count_;
    unsigned known_ = 0;  // elements
    const std::uint8_t* records_[kMaxSubjectElements + 1];
    std::uint64_t hashes_[kMaxSubjectElements];
};

/// Patterns, which are subjects with wildcards, as a tree; finds those that match a subject. Every
/// pattern has a number of the caller's. Loop thread only.
class PatternTrie {
  public:
    using NodeId = std::uint32_t;     // 0: none
    using PatternId = std::uint32_t;  // 0: none

    explicit PatternTrie(const SubjectHash& hash);

    /// Adds a pattern that is not in the tree yet, and returns its node. Throws `std::bad_alloc`;
    /// the tree then matches as before.
    NodeId add(SubjectView pattern, PatternId id);
    /// Removes the pattern of a node; needs no memory.
    void remove(NodeId node) noexcept;
    [[nodiscard]] bool empty() const { return nodes_[kRoot].children == 0; }

    /// A search for the patterns that match one subject: a place in the tree. It must be parked
    /// before the tree changes, and released before it dies.
    class Search {
      public:
        /// `isOpen`: whether the first element of a pattern may be a wildcard.
        explicit Search(bool isOpen) : isOpen_(isOpen) {}

        [[nodiscard]] bool isDone() const { return node_ == 0; }
        /// One step, of constant time for elements of ordinary length: a matching pattern, or 0.
        /// Must not be done.
        PatternId step(const PatternTrie& trie, SubjectElements& subject);

        /// Keeps the place while the tree changes.
        void park(PatternTrie& trie) noexcept {
            if (node_ != held_) hold(trie, node_);
        }
        /// Gives up the place that `park` keeps.
        void release(PatternTrie& trie) noexcept {
            if (held_ != 0) hold(trie, 0);
        }

      private:
        // What comes next at `node_`, whose path matches.
        enum class Next : std::uint8_t { kRoot, kAny, kLiteral, kParent };

        PatternId enter(const PatternTrie& trie, const SubjectElements& subject, NodeId child);
        void climb(const PatternTrie& trie);
        void hold(PatternTrie& trie, NodeId node) noexcept;

        NodeId node_ = kRoot;
        NodeId held_ = 0;  // the node that this search keeps
        Next next_ = Next::kRoot;
        bool isOpen_;
        bool hasBranched_ = false;  // into a "*" child: only then is there more above
    };

  private:
    using Run = ShortBytes<26>;

    /// The end of a run of elements, in one cache line. A node other than the root has a pattern or
    /// two children, so there are at most two nodes for each pattern.
    struct alignas(64) Node {
        NodeId parent = 0;
        NodeId any = 0;              // the child whose run begins with "*"
        NodeId rest = 0;             // the child whose run is ">"
        std::uint32_t hash = 0;      // of a child that begins with a literal element: its slot's
        PatternId pattern = 0;       // that ends here
        std::uint32_t children = 0;  // their number
        NodeId childrenXor = 0;      // of their numbers: that of an only child
        std::uint32_t parked = 0;    // searches
        std::uint8_t end = 0;        // elements from the root up to here
        std::uint8_t length = 0;     // elements in the run
        bool hasRest = false;        // the wildcard ">" ends the run
        Run run;                     // encoded elements
    };
    static_assert(sizeof(Node) == 64);
    static constexpr NodeId kRoot = 1;

    static bool fits(const Node& node, SubjectElements& subject);
    static std::uint32_t slotHash(NodeId parent, std::uint64_t elementHash);
    HashSlot* slotOf(NodeId child) const;
    NodeId literalChild(NodeId parent, SubjectElements& path, unsigned at) const;
    NodeId child(NodeId parent, SubjectElements& path, unsigned at) const;
    static unsigned shared(const Node& node, SubjectElements& path, unsigned at);
    NodeId hang(NodeId parent, SubjectElements& path, unsigned from);
    NodeId split(NodeId lower, unsigned length);
    void link(NodeId parent, NodeId child) noexcept;
    void unlink(NodeId child) noexcept;
    void replace(NodeId old, NodeId replacement) noexcept;
    void tidy(NodeId id) noexcept;
    void joinOnlyChild(NodeId id);

    SubjectHash hash_;
    NumberedPool<Node> nodes_;
    SlotTable literals_;  // children that begin with a literal element
};

}  // namespace kvx
