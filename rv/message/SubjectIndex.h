#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "rv/message/NumberedPool.h"
#include "rv/message/PatternTrie.h"
#include "rv/message/ShortBytes.h"
#include "rv/message/SlotTable.h"
#include "rv/message/SubjectHash.h"
#include "rv/message/SubjectView.h"

namespace kvx {

/// How a subject is matched; see `SubjectTree`.
enum class SubjectMatch : std::uint8_t { kAny, kLiteralRoot, kExact, kCovered };

/// Whether every subject that `covered` matches matches `pattern` as well; but a wildcard in the
/// first element of `pattern` covers no reserved one ("_INBOX", "_RV").
[[nodiscard]] bool covers(SubjectView pattern, SubjectView covered);

/// The untyped store behind `SubjectTree`: subjects, their subscriptions, and two kinds of match:
/// `Walk` and `Search`. Loop thread only.
class SubjectIndex {
  public:
    using SubjectId = std::uint32_t;  // 0: none

    SubjectIndex();

    /// Throws `std::bad_alloc`; the index is then unchanged.
    SubjectId add(SubjectView subject, void* subscription);
    /// Needs no memory.
    [[nodiscard]] bool remove(SubjectId id, const void* subscription) noexcept;
    [[nodiscard]] SubjectId find(SubjectView subject) const;
    [[nodiscard]] SubjectId next(SubjectId from) const { return leaves_.next(from); }
    [[nodiscard]] std::size_t count(SubjectId id) const {
        return leaves_.holds(id) ? leaves_[id].entries().size() : 0;
    }
    [[nodiscard]] SubjectView subject(SubjectId id) const { return leaves_[id].view(); }
    [[nodiscard]] std::size_t size() const { return size_; }

    /// The subjects that one match reaches, each once.
    class Finder {
      public:
        explicit Finder(SubjectMatch how);

        [[nodiscard]] bool isDone() const { return stage_ == Stage::kDone; }
        /// The next subject reached; 0 at the end, or when `steps`, which every step lowers, has
        /// become 0.
        SubjectId next(const SubjectIndex& index, SubjectView subject, SubjectElements& elements,
                       std::size_t& steps);
        void park(SubjectIndex& index) noexcept { patterns_.park(index.patterns_); }
        void release(SubjectIndex& index) noexcept { patterns_.release(index.patterns_); }

      private:
        enum class Stage : std::uint8_t { kStart, kPatterns, kEach, kWhole, kDone };

        SubjectMatch how_;
        Stage stage_;
        std::uint32_t hash_ = 0;  // of the subject
        SubjectId each_ = 1;      // the next to be compared
        PatternTrie::Search patterns_;
    };

    /// A match in the order of adding. Until the last walk ends, subjects without subscriptions
    /// stay, so the places of all walks stay valid. Walks nest and end in reverse order.
    class Walk {
      public:
        /// Throws `std::bad_alloc`.
        Walk(SubjectIndex& index, SubjectView subject, SubjectMatch how);
        Walk(const Walk&) = delete;
        Walk& operator=(const Walk&) = delete;
        ~Walk();

        /// The next subscription, or null at the end.
        void* next();

      private:
        SubjectIndex& index_;
        std::size_t base_;     // where this walk's part of `reached_` begins
        std::uint64_t limit_;  // entries added from here on are not visited
    };

    /// A match in no order and in any number of turns, between which everything may change.
    class Search {
      public:
        Search(SubjectIndex& index, SubjectMatch how);
        Search(const Search&) = delete;
        Search& operator=(const Search&) = delete;
        ~Search();

        [[nodiscard]] bool isDone() const { return finder_.isDone() && subject_ == 0; }
        /// The subject of the last subscription found.
        [[nodiscard]] SubjectId entered() const { return entered_; }

        class Turn;

      private:
        SubjectIndex& index_;
        Finder finder_;
        SubjectId subject_ = 0;    // its subscriptions are being visited
        SubjectId entered_ = 0;    // the last one
        std::uint64_t order_ = 0;  // those from here on are still to be visited
        const std::uint64_t limit_;
    };

  private:
    struct Entry {
        void* subscription = nullptr;
        std::uint64_t order = 0;  // position in the order of adding
    };

    /// One subject and its subscriptions, in the order of adding: two neighbouring cache lines. A
    /// single one is in place.
    struct alignas(64) Leaf {
        Entry entry;
        std::unique_ptr<std::vector<Entry>> list;
        std::uint32_t hash = 0;
        PatternTrie::NodeId node = 0;  // of a pattern
        SubjectId nextUnused = 0;
        bool isUnused = false;  // in the list of `unused_`
        ShortBytes<88> subject;

        [[nodiscard]] SubjectView view() const {
            return SubjectView::trusted(subject.view().data());
        }
        [[nodiscard]] std::span<const Entry> entries() const;
        void append(Entry added);
        void erase(std::size_t position) noexcept;
    };

    static_assert(sizeof(Leaf) == 128);

    /// The place of a walk among one subject's entries.
    struct Cursor {
        SubjectId subject;
        std::uint32_t position;
        std::uint64_t order;  // of the entry at `position`
    };
    /// Orders a heap with the earliest cursor on top.
    struct Later {
        bool operator()(const Cursor& a, const Cursor& b) const { return a.order > b.order; }
    };

    static std::size_t positionFrom(std::span<const Entry> entries, std::uint64_t order);
    std::uint32_t hashOf(SubjectView subject) const;
    SubjectId find(SubjectView subject, std::uint32_t hash) const;
    SubjectId insert(SubjectView subject, std::uint32_t hash);
    void drop(SubjectId id) noexcept;
    void endWalk() noexcept;

    SubjectHash hash_;
    NumberedPool<Leaf> leaves_;
    SlotTable subjects_;    // all leaves, by the hash of their subject
    PatternTrie patterns_;  // those with wildcards
    std::size_t size_ = 0;
    std::uint64_t nextOrder_ = 0;

    // Walks in progress: a stack of their cursors, and the leaves to drop when the last one ends.
    std::vector<Cursor> reached_;
    SubjectId unused_ = 0;
    unsigned walks_ = 0;
};

/// One turn of a search. `subject` has the same bytes in every turn. The index must not change
/// until it ends.
class SubjectIndex::Search::Turn {
  public:
    Turn(Search& search, SubjectView subject);
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() { search_.finder_.park(search_.index_); }

    /// The next subscription; null when the search is done or `steps`, which every step lowers, has
    /// become 0.
    void* next(std::size_t& steps);

  private:
    void resume();
    void enter(SubjectId id, std::uint64_t order);
    void* take();

    Search& search_;
    SubjectView subject_;
    SubjectElements elements_;
    std::span<const Entry> entries_;  // of the search's subject, those still to be visited
};

}  // namespace kvx
