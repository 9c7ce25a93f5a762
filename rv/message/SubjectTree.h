#pragma once

#include <cstddef>
#include <type_traits>

#include "rv/message/SubjectIndex.h"
#include "rv/message/SubjectView.h"

namespace kvx {

/// How the daemon finds the listens that a message on `subject` reaches.
inline SubjectMatch deliveryMatch(SubjectView subject) {
    if (subject.hasWildcards()) return SubjectMatch::kCovered;
    return subject.first() == kInboxElement ? SubjectMatch::kLiteralRoot : SubjectMatch::kAny;
}

/// A subject tree: finds the subscriptions that match a subject.
///
/// The subscriptions on a message's own subject cost one hash probe, whatever their number; those
/// on patterns one probe per element, and more only where a "*" fits as well. A message on a
/// pattern is compared with every subject. A match takes at most three steps for each subject that
/// has subscriptions, and one for each of these.
///
/// The four kinds of match, and their uses:
///
///   kAny          every subscription, wildcards included           ordinary subjects
///   kLiteralRoot  the same, but first elements must be equal       the daemon's inbox messages
///   kExact        only subscriptions on this very subject          the client's inbox messages
///   kCovered      a pattern: every subscription of which           messages on wildcard subjects
///                 each subject matches the pattern; wildcards in
///                 its first element do not cover "_INBOX", "_RV"
///
/// `match` visits in the order of adding, at once. `Search` does it in turns of bounded work, in no
/// order. A subscription added after the beginning is not visited, nor is one that has been
/// removed. The tree must outlive both. Not thread-safe: loop thread only.
template <class Subscription>
class SubjectTree {
  public:
    using SubjectId = SubjectIndex::SubjectId;

    SubjectTree() = default;
    SubjectTree(const SubjectTree&) = delete;
    SubjectTree& operator=(const SubjectTree&) = delete;
    ~SubjectTree() = default;

    /// Adds `subscription` under `subject`, which is copied. The tree keeps the pointer, which must
    /// be removed before the subscription is destroyed. Adding one pointer twice under one subject
    /// counts twice: it is visited twice and removed twice. Returns the subject's number, which it
    /// keeps while it has a subscription. Throws `std::bad_alloc`; the tree is then unchanged.
    SubjectId add(SubjectView subject, Subscription* subscription) {
        return index_.add(subject, subscription);
    }

    /// The number of a subject that has subscriptions; 0 for any other.
    SubjectId find(SubjectView subject) const { return index_.find(subject); }

    /// The number of subscriptions on exactly that subject; 0 for a number that names none.
    std::size_t count(SubjectId subject) const { return index_.count(subject); }
    /// The bytes of a subject whose `count` is not 0, valid until it has no subscription any more.
    SubjectView subject(SubjectId id) const { return index_.subject(id); }
    /// A walk over all subjects, between whose steps everything may change: the next number from
    /// `from` on that may have a `count`, 0 at the end. Numbers begin with 1.
    SubjectId next(SubjectId from) const { return index_.next(from); }

    /// Undoes the latest `add`; needs no memory. Returns false, and changes nothing, when there
    /// was none. Linear in the number of subscriptions on this very subject.
    [[nodiscard]] bool remove(SubjectId subject, const Subscription* subscription) noexcept {
        return index_.remove(subject, subscription);
    }
    [[nodiscard]] bool remove(SubjectView subject, const Subscription* subscription) noexcept {
        return index_.remove(index_.find(subject), subscription);
    }

    /// The number of subscriptions, each `add` counted.
    std::size_t size() const { return index_.size(); }

    /// Calls `visit(Subscription&)` for every match, and returns the number of calls. `visit` may
    /// return bool: false ends the match. It may add and remove subscriptions and start another
    /// match. Allocates nothing once the tree has seen a match as wide as this one; else may throw
    /// `std::bad_alloc` before the first call.
    template <class Visit>
    std::size_t match(SubjectView subject, SubjectMatch how, Visit&& visit) const {
        SubjectIndex::Walk walk(index_, subject, how);
        std::size_t visited = 0;
        while (void* const found = walk.next()) {
            ++visited;
            if (!shallGoOn(visit, found)) break;
        }
        return visited;
    }
    template <class Visit>
    std::size_t match(SubjectView subject, Visit&& visit) const {
        return match(subject, SubjectMatch::kAny, visit);
    }

    /// A match in turns. Needs no memory.
    class Search {
      public:
        Search(SubjectTree& tree, SubjectMatch how) : search_(tree.index_, how) {}

        /// Goes on until the match is done, which returns true, or `steps` steps, each of some 10
        /// to 500 ns, are used up; `steps` is lowered by those made. `subject` must have the same
        /// bytes in every turn, at any address. `visit(Subscription&)` may return false, which ends
        /// the turn, and must not change the tree; between turns, it may change.
        template <class Visit>
        bool advance(SubjectView subject, std::size_t& steps, Visit&& visit) {
            SubjectIndex::Search::Turn turn(search_, subject);
            while (void* const found = turn.next(steps)) {
                if (!shallGoOn(visit, found)) break;
            }
            return search_.isDone();
        }

        [[nodiscard]] bool isDone() const { return search_.isDone(); }

        /// The subject of the subscription that was visited last; valid until the tree changes.
        [[nodiscard]] SubjectId subject() const { return search_.entered(); }

      private:
        SubjectIndex::Search search_;
    };

  private:
    template <class Visit>
    static bool shallGoOn(Visit& visit, void* found) {
        auto& subscription = *static_cast<Subscription*>(found);
        if constexpr (std::is_same_v<decltype(visit(subscription)), bool>) {
            return visit(subscription);
        } else {
            visit(subscription);
            return true;
        }
    }

    mutable SubjectIndex index_;  // a match keeps its state inside
};

}  // namespace kvx
