// The event manager's plain functions: they refuse a null or dying manager, translate codes, and
// keep the process's one reference to a manager that sessions share.

#include "rv/event/rvevm.h"

#include <memory>
#include <mutex>
#include <new>

#include "rv/error/rvCodes.h"
#include "rv/event/EventManager.h"
#include "rv/event/EventManagerExtras.h"

struct rvevm_Manager_ : kvx::event::EventManager {
    rvevm_Manager_() : EventManager(this) {}
};

namespace event_code = kvx::event_code;

namespace {

struct SharedManager {
    std::mutex mutex;
    rvevm_Manager manager = nullptr;
    unsigned long uses = 0;
};

SharedManager& sharedManager() {
    static SharedManager shared;
    return shared;
}

void forgetSharedManager(rvevm_Manager manager) {
    SharedManager& shared = sharedManager();
    const std::lock_guard lock(shared.mutex);
    if (shared.manager != manager) return;
    shared.manager = nullptr;
    shared.uses = 0;
}

bool usable(rvevm_Manager manager) noexcept {
    return manager != nullptr && !manager->dying();
}

// Inside its loop the manager is freed by `rvevm_MainLoop`.
void shutDown(rvevm_Manager manager) noexcept {
    manager->shutDown();
    if (!manager->looping()) delete manager;
}

}  // namespace

int rvevm_Create(rvevm_Manager* manager) {
    if (manager == nullptr) return event_code::kInvalidId;
    *manager = nullptr;
    try {
        auto created = std::make_unique<rvevm_Manager_>();
        if (!created->valid()) return event_code::kNotSupported;
        *manager = created.release();
        return event_code::kOk;
    } catch (const std::bad_alloc&) {
        return event_code::kResourcesExceeded;
    }
}

int rvevm_Destroy(rvevm_Manager manager) {
    if (!usable(manager)) return event_code::kNotInitialized;
    forgetSharedManager(manager);
    shutDown(manager);
    return event_code::kOk;
}

int rvevm_MainLoop(rvevm_Manager manager) {
    if (!usable(manager)) return event_code::kNotInitialized;
    const int code = manager->runLoop();
    if (manager->dying() && !manager->looping()) delete manager;
    return code;
}

int rvevm_Stop(rvevm_Manager manager) {
    if (manager == nullptr) return event_code::kNotInitialized;
    manager->stop();
    return event_code::kOk;
}

int rvevm_AddIO(rvevm_Manager manager, rvevm_Id* id, unsigned int socket,
                rvevm_IoEventType condition, rvevm_Callback callback, void* closure) {
    if (!usable(manager)) return event_code::kNotInitialized;
    return manager->io().add(id, socket, condition, callback, closure);
}

int rvevm_RemoveIO(rvevm_Manager manager, rvevm_Id id) {
    return usable(manager) ? manager->io().remove(id) : event_code::kNotInitialized;
}

int rvevm_AddTimer(rvevm_Manager manager, rvevm_Id* id, unsigned long intervalMs,
                   rvevm_Callback callback, void* closure) {
    if (!usable(manager)) return event_code::kNotInitialized;
    return kvx::event::eventCodeOf(manager->timers().add(id, intervalMs, callback, closure));
}

int rvevm_AddRepeatTimer(rvevm_Manager manager, rvevm_Id* id, unsigned long intervalMs,
                         rvevm_Callback callback, void* closure) {
    if (!usable(manager)) return event_code::kNotInitialized;
    if (id == nullptr) return event_code::kInvalidId;
    if (callback == nullptr) return event_code::kInvalidCallback;
    if (intervalMs == 0) return event_code::kInvalidInterval;
    return kvx::event::eventCodeOf(
        manager->timers().addRepeating(id, intervalMs, callback, closure));
}

int rvevm_RemoveTimer(rvevm_Manager manager, rvevm_Id id) {
    if (!usable(manager)) return event_code::kNotInitialized;
    return kvx::event::eventCodeOf(manager->timers().remove(id));
}

int rvevm_ResetTimer(rvevm_Manager manager, rvevm_Id id, unsigned long intervalMs) {
    if (!usable(manager)) return event_code::kNotInitialized;
    if (intervalMs == 0 && manager->timers().isRepeating(id)) return event_code::kInvalidInterval;
    return kvx::event::eventCodeOf(manager->timers().reset(id, intervalMs));
}

int rvevm_AddSignal(rvevm_Manager manager, rvevm_Id* id, int signal, rvevm_Callback callback,
                    void* closure) {
    if (!usable(manager)) return event_code::kNotInitialized;
    return manager->signals().add(id, signal, callback, closure);
}

int rvevm_RemoveSignal(rvevm_Manager manager, rvevm_Id id) {
    return usable(manager) ? manager->signals().remove(id) : event_code::kNotInitialized;
}

namespace kvx::event {

int makeReady(rvevm_Manager manager, rvevm_Id id) noexcept {
    return usable(manager) ? manager->io().makeReady(id) : event_code::kNotInitialized;
}

bool isLooping(rvevm_Manager manager) noexcept {
    return manager != nullptr && manager->looping();
}

rvevm_Manager acquireSharedManager(int& code) noexcept {
    SharedManager& shared = sharedManager();
    const std::lock_guard lock(shared.mutex);
    code = shared.manager == nullptr ? rvevm_Create(&shared.manager) : event_code::kOk;
    if (code != event_code::kOk) return nullptr;
    ++shared.uses;
    return shared.manager;
}

void releaseSharedManager(rvevm_Manager manager) noexcept {
    SharedManager& shared = sharedManager();
    {
        const std::lock_guard lock(shared.mutex);
        if (manager == nullptr || shared.manager != manager || --shared.uses != 0) return;
        shared.manager = nullptr;
    }
    shutDown(manager);
}

}  // namespace kvx::event
