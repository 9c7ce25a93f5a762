#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <span>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/Export.h"

/// A queue of work items and a set of threads that run them, each item once. Any thread.
///
/// The pool's one lock is recursive and is never held while an item runs, while an error is
/// reported or while an override is called. So an item may call every operation of its pool but the
/// destructor, and may wait for other threads that do. A holder of the lock through `RSPWorkLock`
/// may call the pool, but must not wait for another thread that does, and so must not stop the
/// threads.
///
/// The pool never deletes an item. Items that are still queued when it dies are not run: take them
/// out first (`RSPStopThreads`, then `RSPTakeWorkDetail` until null) when they must be released.
class KVX_API CVekServPool {
  public:
    using ThreadFunction = void (*)(void* item, void* context);

    /// A pool of `threads` threads (none when below 1), which start with `RSPLaunchThreads`.
    /// `context` is passed to every call of the thread function and must outlive the pool.
    CVekServPool(int threads, void* context);
    CVekServPool(const CVekServPool&) = delete;
    CVekServPool& operator=(const CVekServPool&) = delete;

    /// Stops the threads; see `RSPStopThreads`. Not to be called on a thread of the pool.
    virtual ~CVekServPool();

    /// Queues `item` and returns 1. Returns -220552 for null and -220553 without memory.
    virtual int RSPAddWorkDetail(void* item);

    /// Removes and returns the next queued item; null when the queue is empty. The caller may hold
    /// the work lock.
    virtual void* RSPTakeWorkDetail();

    /// Starts the threads: each repeatedly takes the next item and calls `function` with it and the
    /// context. Returns at once. A second call, and one after `RSPStopThreads`, does nothing.
    void RSPLaunchThreads(ThreadFunction function);

    /// Waits until every running item has finished, and ends the threads. Waiting items stay
    /// queued. Called from an item it ends the other threads; the item's own thread ends when
    /// another thread stops or destroys the pool. Must not be called with the work lock held.
    void RSPStopThreads();

    /// Locks the queue: until the unlock no other thread takes or adds an item. The holder may take
    /// and add, and may lock again.
    void RSPWorkLock() { m_workLock.lock(); }
    void RSPWorkUnLock() { m_workLock.unlock(); }

  protected:
    /// Queues all of `items`, or none, and wakes the threads; the caller need not hold the work
    /// lock. Returns 1, or -220553 without memory.
    int enqueue(std::span<void* const> items);

  private:
    std::error_code launch(ThreadFunction function);
    void runItems(ThreadFunction function);
    // The next item to run; null when the thread is to end.
    void* waitForItem();
    // The item at the front, or null; the work lock is held.
    void* takeNext();

    // Constant after construction.
    const int m_threadCount;
    void* const m_context;

    // Guarded by m_workLock.
    std::recursive_mutex m_workLock;
    std::condition_variable_any m_workArrived;
    std::deque<void*> m_queue;
    std::vector<std::thread> m_threads;
    bool m_stopping = false;
};
