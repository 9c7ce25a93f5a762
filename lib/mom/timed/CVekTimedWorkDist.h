#pragma once

#include "foundation/CVekAsymmetricMutex.h"
#include "platform/Export.h"

class CVekHashList;
class CVekTimedWork;
class CVekTimedWorkDistBucket;
class CVekTimedWorkMgr;

/// All polls of one frequency, spread over one bucket for each tick of the period.
///
/// Every tick runs the bucket at the current position and advances it, so each poll runs once a
/// period; the position is never reset. Adding changes only the list of names;
/// `RTWDDistributePolls` rebuilds the buckets, and a deletion empties them until then.
///
/// Threads: the poll pool calls `RTWDOnTimer`; the caller of everything else holds the manager's
/// lock. Does not own the polls.
class KVX_API CVekTimedWorkDist {
  public:
    /// `manager` runs the polls and must outlive this object. Reports -220552 for a frequency of 0
    /// or -1; one below 1 distributes nothing.
    CVekTimedWorkDist(CVekTimedWorkMgr* manager, int frequency);
    CVekTimedWorkDist(const CVekTimedWorkDist&) = delete;
    CVekTimedWorkDist& operator=(const CVekTimedWorkDist&) = delete;
    virtual ~CVekTimedWorkDist();

    /// Adds `poll` to the list of names. Returns 1, or -220566 when its name exists.
    int RTWDAddPoll(CVekTimedWork* poll);

    /// Empties all buckets, and removes the poll of that name, if there is one. Returns 1.
    int RTWDDeletePoll(CVekTimedWork* poll);

    /// Replaces the poll of the same name, in its bucket too, and returns 1. When there is none,
    /// adds `poll` to the list of names and returns -220547. The replaced poll must still be alive.
    int RTWDChangePoll(CVekTimedWork* poll);

    /// Rebuilds all buckets: the load of any two ticks differs by one poll at most, and the
    /// remainder is spread evenly. Returns 1.
    int RTWDDistributePolls();

    /// The tick. Returns 1.
    int RTWDOnTimer();

    /// The number of buckets, in ticks.
    int RTWDGetFrequency();

  protected:
    /// Deletes all buckets. Returns 1.
    int RTWDClearBuckets();

    /// Adds `poll` to the bucket of that index, made if needed. Returns 1.
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
    CVekAsymmetricMutex m_lock;   // left: the tick; right: changing buckets
};
