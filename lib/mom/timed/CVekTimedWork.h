#pragma once

#include "foundation/Boolean.h"
#include "foundation/CVekMutex.h"
#include "platform/Export.h"

class CVekAtom;

/// A periodic poll of a service: what is done, under which name, every how many ticks.
///
/// The service owns its polls. A poll must be deleted from its manager, and the deletion
/// distributed (`RTWMDistributePolls`), before it is destroyed; a worker that runs it must have
/// finished.
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

    /// Asked each time the poll is due: FALSE skips it, for instance while `RTWPollIsExecuting()`.
    /// The base returns TRUE. `CVekTimedWorkMgr` says what overrides may call.
    virtual __boolean RTWAddToPool();

    /// Set when a worker is made for the poll, and cleared when that worker goes. Any thread.
    virtual void RTWSetPollIsExecuting(bool executing);
    virtual bool RTWPollIsExecuting() const;

    /// Takes ownership of `name`, a text that is unique among the polls of one frequency. A name
    /// set before is not deleted.
    void RTWSetName(CVekAtom* name);
    CVekAtom* RTWName();

    /// In ticks. To be changed only while the poll is in no manager, or by
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
