#pragma once

#include "foundation/Boolean.h"
#include "foundation/CVekMutex.h"
#include "platform/Export.h"

class CVekAtom;

/// A periodic poll of a service: its work, name and period in ticks.
///
/// The service owns its polls. Before a poll is destroyed, delete it from its manager and
/// distribute the deletion (`RTWMDistributePolls`); a worker that runs it must have finished.
class KVX_API CVekTimedWork {
  public:
    /// No name, frequency and bucket key -1.
    CVekTimedWork();
    CVekTimedWork(const CVekTimedWork&) = delete;
    CVekTimedWork& operator=(const CVekTimedWork&) = delete;

    /// Deletes the name.
    virtual ~CVekTimedWork();

    /// One execution of the poll. Called by workers, on a thread of the work pool.
    virtual void RTWDoPoll() = 0;

    /// Called each time the poll is due: FALSE skips it, for instance while `RTWPollIsExecuting()`.
    /// The base returns TRUE. See `CVekTimedWorkMgr` for what overrides may call.
    virtual __boolean RTWAddToPool();

    /// Set when a worker is made for the poll, and cleared when the worker is destroyed. Any
    /// thread.
    virtual void RTWSetPollIsExecuting(bool executing);
    virtual bool RTWPollIsExecuting() const;

    /// Takes ownership of `name`, a text that is unique among the polls of one frequency. Does not
    /// delete an earlier name.
    void RTWSetName(CVekAtom* name);
    CVekAtom* RTWName();

    /// In ticks. Change it only while the poll is in no manager, or with
    /// `CVekTimedWorkMgr::RTWMChangePollFrequency`.
    void RTWSetFrequency(int frequency);
    int RTWFrequency();

    /// The bucket that holds the poll; set by its distribution.
    void RTWSetBucketKey(int key);
    int RTWBucketKey();

  private:
    bool m_executing = false;  // guarded by m_mutex
    mutable CVekMutex m_mutex;
    CVekAtom* m_name = nullptr;  // owned
    int m_frequency = -1;        // ticks
    int m_bucketKey = -1;
};
