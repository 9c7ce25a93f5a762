#include "foundation/CVekThread.h"

#include <atomic>

// Counted rather than asked of the system, which gives the number of a dead thread to a new one: an
// answer that was meant for the dead one would reach the wrong thread.
unsigned CVekThread::RTId() {
    static std::atomic<unsigned> threads{0};
    static thread_local const unsigned id = ++threads;
    return id;
}
