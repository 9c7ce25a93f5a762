#pragma once

#include <mutex>

#include "platform/Export.h"

/// A lock with two sides. A holder excludes all others, on either side. Not recursive, see
/// `CVekMutex`.
class KVX_API CVekAsymmetricMutex {
  public:
    void RAMLockLeft() { m_mutex.lock(); }
    void RAMUnLockLeft() { m_mutex.unlock(); }
    void RAMLockRight() { m_mutex.lock(); }
    void RAMUnLockRight() { m_mutex.unlock(); }

  private:
    std::mutex m_mutex;
};
