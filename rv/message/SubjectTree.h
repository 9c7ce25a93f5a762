#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include "rv/message/SubjectIndex.h"
#include "rv/message/SubjectView.h"

namespace kvx {

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
