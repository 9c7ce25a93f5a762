// The event manager's plain functions: they look up the manager of a handle, refuse a dying one,
// translate codes, and keep the one manager that the sessions of the process share.

#include "rv/event/rvevm.h"

#include <memory>
#include <mutex>
#include <new>
#include <type_traits>

#include "rv/error/rvCodes.h"
#include "rv/event/EventManager.h"
#include "rv/event/EventManagerExtras.h"
#include "rv/event/HandleTable.h"

namespace event_code = kvx::event_code;

namespace {

using kvx::event::EventManager;

struct Manager;
constinit kvx::event::HandleTable<Manager> managers;
static_assert(std::is_trivially_destructible_v<decltype(managers)>, "used after main");

// The handle is the first base: it is the owner that callbacks get.
struct Manager : kvx::event::Handle<Manager>, EventManager {
    Manager() : Handle(managers, this), EventManager(get()) {}
};

rvevm_Manager handleOf(const Manager& manager) noexcept {
    return static_cast<rvevm_Manager>(manager.get());
}

// Null unless the manager may be used.
Manager* usable(rvevm_Manager handle) noexcept {
    Manager* const manager = managers.find(handle);
    return manager != nullptr && !manager->dying() ? manager : nullptr;
}

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

// Inside its loop the manager is freed by `rvevm_MainLoop`.
void shutDown(Manager* manager) noexcept {
    manager->shutDown();
    if (!manager->looping()) delete manager;
}

// The result of `operation` on the manager of the handle.
template <class Operation>
int on(rvevm_Manager handle, Operation operation) {
    Manager* const manager = usable(handle);
    return manager == nullptr ? event_code::kNotInitialized : operation(*manager);
}

}  // namespace

int rvevm_Create(rvevm_Manager* manager) {
    if (manager == nullptr) return event_code::kInvalidId;
    *manager = nullptr;
    try {
        auto created = std::make_unique<Manager>();
        if (!created->valid()) return event_code::kNotSupported;
        *manager = handleOf(*created.release());
        return event_code::kOk;
    } catch (const std::bad_alloc&) {
        return event_code::kResourcesExceeded;
    }
}

int rvevm_Destroy(rvevm_Manager manager) {
    return on(manager, [&](Manager& ended) {
        forgetSharedManager(manager);
        shutDown(&ended);
        return event_code::kOk;
    });
}

int rvevm_MainLoop(rvevm_Manager manager) {
    return on(manager, [](Manager& looping) {
        const int code = looping.runLoop();
        if (looping.dying() && !looping.looping()) delete &looping;
        return code;
    });
}

int rvevm_Stop(rvevm_Manager manager) {
    return on(manager, [](Manager& stopped) {
        stopped.stop();
        return event_code::kOk;
    });
}

int rvevm_AddIO(rvevm_Manager manager, rvevm_Id* id, unsigned int socket,
                rvevm_IoEventType condition, rvevm_Callback callback, void* closure) {
    return on(manager, [=](Manager& watching) {
        return watching.io().add(id, socket, condition, callback, closure);
    });
}

int rvevm_RemoveIO(rvevm_Manager manager, rvevm_Id id) {
    return on(manager, [=](Manager& watching) { return watching.io().remove(id); });
}

int rvevm_AddTimer(rvevm_Manager manager, rvevm_Id* id, unsigned long intervalMs,
                   rvevm_Callback callback, void* closure) {
    return on(manager, [=](Manager& timing) {
        return kvx::event::eventCodeOf(timing.timers().add(id, intervalMs, callback, closure));
    });
}

int rvevm_AddRepeatTimer(rvevm_Manager manager, rvevm_Id* id, unsigned long intervalMs,
                         rvevm_Callback callback, void* closure) {
    return on(manager, [=](Manager& timing) -> int {
        if (id == nullptr) return event_code::kInvalidId;
        if (callback == nullptr) return event_code::kInvalidCallback;
        if (intervalMs == 0) return event_code::kInvalidInterval;
        return kvx::event::eventCodeOf(
            timing.timers().addRepeating(id, intervalMs, callback, closure));
    });
}

int rvevm_RemoveTimer(rvevm_Manager manager, rvevm_Id id) {
    return on(manager,
              [=](Manager& timing) { return kvx::event::eventCodeOf(timing.timers().remove(id)); });
}

int rvevm_ResetTimer(rvevm_Manager manager, rvevm_Id id, unsigned long intervalMs) {
    return on(manager, [=](Manager& timing) -> int {
        if (intervalMs == 0 && timing.timers().isRepeating(id)) return event_code::kInvalidInterval;
        return kvx::event::eventCodeOf(timing.timers().reset(id, intervalMs));
    });
}

int rvevm_AddSignal(rvevm_Manager manager, rvevm_Id* id, int signal, rvevm_Callback callback,
                    void* closure) {
    return on(manager, [=](Manager& catching) {
        return catching.signals().add(id, signal, callback, closure);
    });
}

int rvevm_RemoveSignal(rvevm_Manager manager, rvevm_Id id) {
    return on(manager, [=](Manager& catching) { return catching.signals().remove(id); });
}

namespace kvx::event {

int makeReady(rvevm_Manager manager, rvevm_Id id) noexcept {
    return on(manager, [=](Manager& watching) { return watching.io().makeReady(id); });
}

bool isStopping(rvevm_Manager manager) noexcept {
    const Manager* stopping = managers.find(manager);
    return stopping != nullptr && stopping->stopping();
}

bool isLooping(rvevm_Manager manager) noexcept {
    const Manager* looping = managers.find(manager);
    return looping != nullptr && looping->looping();
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
    if (Manager* const unused = usable(manager)) shutDown(unused);
}

}  // namespace kvx::event
