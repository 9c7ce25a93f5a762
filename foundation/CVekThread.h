#pragma once

#include <mutex>

#include "platform/Export.h"

/// A recursive lock, and the identity of threads.
class KVX_API CVekThread {
  public:
    void RTLock() { m_mutex.lock(); }
    void RTUnLock() { m_mutex.unlock(); }

    /// The calling thread's number: positive as an `int`, and never given to another thread of the
    /// process.
    static unsigned RTId();

    /// Holds a `CVekThread`'s lock for as long as it lives; the object must outlive it.
    class AutoMutex {
      public:
        explicit AutoMutex(CVekThread& object) : m_object(object) { m_object.RTLock(); }
        ~AutoMutex() { m_object.RTUnLock(); }
        AutoMutex(const AutoMutex&) = delete;
        AutoMutex& operator=(const AutoMutex&) = delete;

      private:
        CVekThread& m_object;
    };

  private:
    std::recursive_mutex m_mutex;
};
