#pragma once

#include "foundation/CVekMutex.h"

/// Holds a `CVekMutex` for as long as it lives; the mutex must outlive it.
class KVX_API CVekAutoMutex {
  public:
    explicit CVekAutoMutex(CVekMutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~CVekAutoMutex() { m_mutex.Unlock(); }
    CVekAutoMutex(const CVekAutoMutex&) = delete;
    CVekAutoMutex& operator=(const CVekAutoMutex&) = delete;

  private:
    CVekMutex& m_mutex;
};
