#pragma once

#include <optional>
#include <string>
#include <vector>

#include "rv/event/IdTable.h"
#include "rv/message/SubjectTree.h"
#include "rv/message/SubjectView.h"
#include "rv/session/rv_Session.h"
#include "rv/wire/Limits.h"

namespace kvx::session {

/// One subscription of a session.
struct ListenRecord {
    Subject subject;
    rv_DataCallback callback;
    void* closure;
    bool textSubjects;  ///< the callback gets dotted text, else the encoded form
    long serial;        ///< the session's listen counter at its creation
    rv_Listener companion =
        nullptr;               ///< the private reply inbox; null for inboxes and reserved subjects
    rv_Listener id = nullptr;  ///< its own id; set by the table
    bool callable = true;      ///< false while its listen is still being made
    bool announced = false;    ///< the daemon was told, on the present connection
};

/// The listen records of a session: by id, by subject, and in the order in which they were made.
/// Loop thread only. Addresses of records stay valid until they are removed.
class ListenTable {
  public:
    /// Adds the record under its subject; null without memory. May throw `std::bad_alloc`.
    [[nodiscard]] rv_Listener add(ListenRecord record);
    /// Null for a dead or foreign id.
    [[nodiscard]] ListenRecord* find(rv_Listener id);
    /// Removes and returns the record; nothing for a dead or foreign id. Allocates nothing.
    [[nodiscard]] std::optional<ListenRecord> take(rv_Listener id) noexcept;
    void remove(rv_Listener id) noexcept { static_cast<void>(take(id)); }

    /// Sets the record's `announced`; false when there is none.
    bool setAnnounced(rv_Listener id, bool announced);
    /// Whether the daemon was told of a record on exactly this subject. Looks at every record.
    [[nodiscard]] bool isAnnounced(SubjectView subject);

    /// The ids of all records, in the order in which they were made.
    [[nodiscard]] std::vector<rv_Listener> ordered();
    /// The dotted subject of a record's companion inbox; empty when it has none.
    [[nodiscard]] std::string companionText(const ListenRecord& record);

    /// What the messages on one subject reach.
    struct Reached {
        std::string subject;                 ///< encoded
        std::string text;                    ///< dotted
        std::vector<rv_Listener> listeners;  ///< in the order of listening

        [[nodiscard]] SubjectView view() const { return SubjectView::trusted(subject.data()); }
    };
    /// The records that match a received subject; null when that is not well formed. Messages come
    /// in runs on one subject, so the last answer is kept, and given again while the table stays as
    /// it is. Valid until the next call; records may be removed and added meanwhile. May throw
    /// `std::bad_alloc`.
    [[nodiscard]] const Reached* reach(wire::Bytes encoded);

  private:
    static SubjectMatch matchFor(SubjectView subject) {
        if (subject.first() == kInboxElement) return SubjectMatch::kExact;
        return subject.hasWildcards() ? SubjectMatch::kCovered : SubjectMatch::kAny;
    }

    event::IdTable<ListenRecord> records_;
    SubjectTree<ListenRecord> tree_;
    Reached reached_;
    bool isReachedKnown_ = false;  // `reached_` holds of the present records
};

/// True for subjects below "_INBOX", which are never announced one by one.
[[nodiscard]] inline bool isInbox(SubjectView subject) {
    return subject.first() == kInboxElement;
}

}  // namespace kvx::session
