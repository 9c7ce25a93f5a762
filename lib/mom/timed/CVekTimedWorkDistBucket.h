#pragma once

#include "platform/Export.h"

class CVekDoubleList;
class CVekTimedWork;
class CVekTimedWorkMgr;

/// The polls that are due at one tick of a distribution's period, in the order of adding.
///
/// Has no lock: its distribution holds its own around every call. Assignment shares the list with
/// the source; only one of the two may be destroyed.
class KVX_API CVekTimedWorkDistBucket {
  public:
    /// `manager` runs the polls and must outlive the bucket; `key` is the bucket's index.
    CVekTimedWorkDistBucket(CVekTimedWorkMgr* manager, int key);
    CVekTimedWorkDistBucket(const CVekTimedWorkDistBucket&) = delete;
    CVekTimedWorkDistBucket& operator=(const CVekTimedWorkDistBucket&) = default;

    /// Deletes the list, not the polls.
    virtual ~CVekTimedWorkDistBucket();

    /// Appends `poll` and sets its bucket key.
    void RTWDBAddPoll(CVekTimedWork* poll);

    /// Replaces the first poll of the same name by `poll` and sets its bucket key; does nothing
    /// when there is none.
    void RTWDBChangePoll(CVekTimedWork* poll);

    /// Passes every poll to the manager, in order.
    void RTWDBDoPolling();

    /// The bucket's index.
    int RTWDBGetPosition();

  private:
    CVekTimedWorkMgr* m_manager;  // not owned
    int m_key;
    CVekDoubleList* m_polls;  // owned; CVekPointers to polls, which it does not own
};
