// One recursive lock guards the queue. Whoever holds it through RSPWorkLock may still call the
// pool's own operations, and the threads of the pool hold it only while they look for an item,
// never while they run one. The threads take items through a function of this class alone: by the
// time that the destructor joins them, a derived class's overrides are gone.

#include "foundation/CVekServPool.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "foundation/CVekError.h"
#include "foundation/ErrorCodes.h"

CVekServPool::CVekServPool(int threads, void* context)
    : m_threadCount(std::max(threads, 0)), m_context(context) {}

CVekServPool::~CVekServPool() {
    RSPStopThreads();
}

int CVekServPool::RSPAddWorkDetail(void* item) {
    if (item == nullptr) return kvx::kInvalidArgument;
    enqueue(item);
    return kvx::kOk;
}

void* CVekServPool::RSPTakeWorkDetail() {
    const std::lock_guard lock(m_workLock);
    return takeNext();
}

void CVekServPool::RSPLaunchThreads(ThreadFunction function) {
    if (function == nullptr) {
        CVekError(kvx::kInvalidArgument, "CVekServPool", 0, "no thread function");
        return;
    }
    const std::lock_guard lock(m_workLock);
    if (m_stopping || !m_threads.empty()) return;
    try {
        for (int i = 0; i < m_threadCount; ++i) {
            m_threads.emplace_back([this, function] { runItems(function); });
        }
    } catch (const std::system_error& error) {
        CVekError(kvx::kNotCompleted, "CVekServPool", 0, error.what());
    }
}

void CVekServPool::RSPStopThreads() {
    std::vector<std::thread> threads;
    {
        const std::lock_guard lock(m_workLock);
        m_stopping = true;
        threads.swap(m_threads);
    }
    m_workArrived.notify_all();
    for (std::thread& thread : threads) thread.join();
}

void CVekServPool::enqueue(void* item) {
    {
        const std::lock_guard lock(m_workLock);
        m_queue.push_back(item);
    }
    m_workArrived.notify_one();
}

void CVekServPool::runItems(ThreadFunction function) {
    while (void* item = waitForItem()) function(item, m_context);
}

void* CVekServPool::waitForItem() {
    std::unique_lock lock(m_workLock);
    m_workArrived.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
    return m_stopping ? nullptr : takeNext();
}

void* CVekServPool::takeNext() {
    if (m_queue.empty()) return nullptr;
    void* item = m_queue.front();
    m_queue.pop_front();
    return item;
}
