#pragma once

#include "foundation/CVekAsymmetricMutex.h"
#include "platform/Export.h"

class CVekHashList;
class CVekTimedWork;
class CVekTimedWorkDistBucket;
class CVekTimedWorkMgr;

/// All polls of one frequency, spread over as many buckets as the period has ticks.
///
/// Every tick runs the bucket at the current position and moves on, so each poll runs once a
/// period; the position never stops and is never reset. Adding changes only the list of names; the
/// buckets are rebuilt by `RTWDDistributePolls`, and emptied by every deletion until then.
///
/// Threads: `RTWDOnTimer` is called by the poll pool; everything else by callers who hold the
/// manager's lock. Polls stay their service's.
class KVX_API CVekTimedWorkDist {
  public:
    /// `manager` runs the polls and must outlive this object. A frequency of 0 or -1 is reported
    /// (-220552); one below 1 ticks and distributes nothing.
    CVekTimedWorkDist(CVekTimedWorkMgr* manager, int frequency);
    CVekTimedWorkDist(const CVekTimedWorkDist&) = delete;
    CVekTimedWorkDist& operator=(const CVekTimedWorkDist&) = delete;
    virtual ~CVekTimedWorkDist();

    /// Adds `poll` to the list of names. Returns 1, or -220566 when its name is there already.
    int RTWDAddPoll(CVekTimedWork* poll);

    /// Empties all buckets, and removes the poll of that name, if there is one. Returns 1.
    int RTWDDeletePoll(CVekTimedWork* poll);

    /// Puts `poll` in the place of the one of the same name, in its bucket too, and returns 1. When
    /// there is none, adds it to the list of names and returns -220547. The replaced poll must
    /// still be alive.
    int RTWDChangePoll(CVekTimedWork* poll);

    /// Rebuilds all buckets: the load of any two ticks differs by one poll at most, and what does
    /// not divide evenly stands at even distances. Returns 1.
    int RTWDDistributePolls();

    /// The tick. Returns 1.
    int RTWDOnTimer();

    /// The number of buckets, in ticks.
    int RTWDGetFrequency();

  protected:
    /// Deletes all buckets. Returns 1.
    int RTWDClearBuckets();

    /// Adds `poll` to the bucket of that index, which is made if need be. Returns 1.
    int RTWDAddToBucket(int index, CVekTimedWork* poll);

  private:
    class BucketLock;

    CVekTimedWorkDistBucket* addBucket(int index);

    // Constant after construction.
    int m_frequency;  // ticks

    // Guarded by the manager's lock.
    CVekHashList* m_polls;  // owned; by name

    // Guarded by m_lock.
    CVekHashList* m_buckets;  // owned, with the buckets; by index
    int m_position = 0;       // the bucket of the next tick

    CVekTimedWorkMgr* m_manager;  // not owned
    CVekAsymmetricMutex m_lock;   // left: the tick; right: whoever changes buckets
};
