// One recursive lock guards the queue. A holder through RSPWorkLock may still call the pool's
// operations; the pool's threads hold it only while they take an item, never while they run one.
// The threads take items through a non-virtual function: when the destructor joins them, the
// overrides of a derived class are gone.

#include "foundation/CVekServPool.h"

#include <algorithm>
#include <new>
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
    return enqueue({&item, 1});
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
    const std::error_code failure = launch(function);
    if (failure) CVekError(kvx::kNotCompleted, "CVekServPool", 0, failure.message().c_str());
}

std::error_code CVekServPool::launch(ThreadFunction function) {
    const std::lock_guard lock(m_workLock);
    if (m_stopping || !m_threads.empty()) return {};
    try {
        for (int i = 0; i < m_threadCount; ++i) {
            m_threads.emplace_back([this, function] { runItems(function); });
        }
    } catch (const std::system_error& error) {
        return error.code();
    } catch (const std::bad_alloc&) {
        return std::make_error_code(std::errc::not_enough_memory);
    }
    return {};
}

void CVekServPool::RSPStopThreads() {
    std::vector<std::thread> threads;
    {
        const std::lock_guard lock(m_workLock);
        m_stopping = true;
        threads.swap(m_threads);
    }
    m_workArrived.notify_all();
    for (std::thread& thread : threads) {
        if (thread.get_id() != std::this_thread::get_id()) {
            thread.join();
            continue;
        }
        const std::lock_guard lock(m_workLock);
        m_threads.push_back(std::move(thread));
    }
}

int CVekServPool::enqueue(std::span<void* const> items) {
    try {
        const std::lock_guard lock(m_workLock);
        m_queue.insert(m_queue.end(), items.begin(), items.end());
    } catch (const std::bad_alloc&) {
        return kvx::kNoMemory;
    }
    if (items.size() == 1) {
        m_workArrived.notify_one();
    } else {
        m_workArrived.notify_all();
    }
    return kvx::kOk;
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
