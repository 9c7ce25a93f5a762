// A net's registries of senders, listeners, timers and I/O handlers, and the main loop.
//
// The net's lock guards the registries against threads that store, dereference or remove while the
// main thread sends; it is recursive, so that a callback of the bus may call back. A call that
// holds it while it sends shares its ownership, since user code may destroy the net; the registries
// are looked up again afterwards, and objects are deleted after the lock is released.
//
// A sender is made once per subject and kept. Of the senders to inboxes, one per answered query,
// only the latest 4,096 are kept. A reply listener whose callback was destroyed is removed when
// later ones are stored. One-shot timers stay until they are removed; only the library's own are
// removed after they have fired.

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "mom/base/VekTrace.h"
#include "mom/net/CVekPostInitTimedClb.h"
#include "mom/net/CVekRvNet.h"
#include "mom/net/CVekRvNetLines.h"
#include "mom/net/DiesWithTimer.h"

namespace rvNet = kvx::rvNet;

namespace {

constexpr char kAdvisorySubjects[] = "_RV.>";
constexpr std::string_view kInboxPrefix = "_INBOX.";
constexpr std::size_t kKeptInboxSenders = 4096;
constexpr int kReplyLooks = 2;        // older reply listeners checked for each new one
constexpr int kPostInitInterval = 3;  // milliseconds
constexpr std::size_t kSubjectGrowth = 4;
constexpr std::size_t kSubjectReserve = 32;  // bytes

template <class Object>
Object* pointeeOf(const CVekPointer* entry) {
    return entry != nullptr ? static_cast<Object*>(entry->RPData()) : nullptr;
}

template <class Object>
Object* pointeeOf(const CVekListable* entry) {
    return pointeeOf<Object>(static_cast<const CVekPointer*>(entry));
}

// Whether a timer will never fire again.
bool isSpent(const RvTimer& timer) {
    return timer.isRepeating() == rv_FALSE && (!timer.isPending() || timer.callback() == nullptr);
}

// Adds `object` under `subject` in a new holder, which is deleted on failure.
int addEntry(CVekTreeList* registry, const char* subject, void* object) {
    auto holder = std::make_unique<CVekPointer>(object);
    const int result = registry->RTLAdd(subject, holder.get());
    if (result == kvx::kOk) static_cast<void>(holder.release());
    return result;
}

bool holdsListener(const CVekTreeList& registry, const RvListener& listener) {
    if (registry.RTLGet(listener.subject()) == nullptr) return false;
    const std::unique_ptr<CVekDoubleList> entries(registry.RTLGetMult(listener.subject()));
    CVekListable* entry = entries->RDLHead();
    while (entry != nullptr && pointeeOf<RvListener>(entry) != &listener) {
        entry = entries->RDLGetNext(entry);
    }
    return entry != nullptr;
}

}  // namespace

char* CVekRvNet::RRNDomainSubj(const char* subject) {
    if (subject == nullptr) {
        kvx::report(kvx::kInvalidArgument, rvNet::kFile, rvNet::QualifyNull, rvNet::kFile);
        return nullptr;
    }
    const std::string_view domain = m_domain ? m_domain.get() : "";
    const std::size_t length = std::strlen(subject) + domain.size();
    auto* const built =
        static_cast<char*>(std::calloc(length * kSubjectGrowth + kSubjectReserve, 1));
    if (built == nullptr) {
        kvx::report(kvx::kNoMemory, "CVekEngine", 0);
        return nullptr;
    }
    char* end = stpcpy(built, subject);
    if (!domain.empty()) {
        *end++ = '.';
        std::memcpy(end, domain.data(), domain.size());
    }
    return built;
}

int CVekRvNet::RRNAddService(const char* subject, RvDataCallback* callback) {
    const kvx::Text qualified(RRNDomainSubj(subject));
    return qualified ? RRNAddExService(qualified.get(), callback) : kvx::kInvalidArgument;
}

int CVekRvNet::RRNAddExService(const char* subject, RvDataCallback* callback) {
    if (!m_session) return kvx::kNoSession;
    if (subject == nullptr) return kvx::kInvalidArgument;
    int status = kvx::kOk;
    std::unique_ptr<RvListener> listener(RRNNewListener(&status, subject, callback, this));
    if (!listener) return kvx::kNoListener;
    const int stored = storeListener(listener.get());
    static_cast<void>(listener.release());
    if (stored != kvx::kOk) kvx::report(stored, rvNet::kFile, rvNet::StoreServiceListener);
    return status;
}

int CVekRvNet::RRNTakeService(const char* subject, RvDataCallback* callback) {
    const int result = RRNAddService(subject, callback);
    if (result == kvx::kOk) {
        const CVekThread::AutoMutex guard(*m_lock);
        if (!m_takenCallbacks) return kvx::kNoSession;
        m_takenCallbacks->RSPush(callback);
    } else {
        kvx::report(result, rvNet::kFile, rvNet::TakeService);
    }
    return result;
}

int CVekRvNet::RRNAddErrorService(RvDataCallback* callback) {
    return RRNAddErrorService(m_session.get(), callback);
}

int CVekRvNet::RRNAddErrorService(RvSession* session, RvDataCallback* callback) {
    if (!m_session) return kvx::kNoSession;
    std::unique_ptr<RvListener> listener(
        session != nullptr ? session->newListener(kAdvisorySubjects, callback, this) : nullptr);
    if (!listener) return kvx::kNoListener;
    const int stored = storeListener(listener.get());
    static_cast<void>(listener.release());
    if (stored != kvx::kOk) kvx::report(stored, rvNet::kFile, rvNet::StoreErrorListener);
    return kvx::kOk;
}

int CVekRvNet::RRNSend(const char* subject, RvDatum& datum) {
    if (!m_session) return kvx::kNoSession;
    const int thread = RRNReturnCheckThreadId();
    if (thread != kvx::kOk) return thread;
    const kvx::Text qualified(RRNDomainSubj(subject));
    if (!qualified) {
        kvx::report(kvx::kInvalidArgument, rvNet::kFile, rvNet::SendSubject);
        return kvx::kInvalidArgument;
    }
    return RRNSendOnSubject(qualified.get(), datum) != nullptr ? kvx::kOk : kvx::kNotSent;
}

int CVekRvNet::RRNSend(const char* subject, RvDatum& datum, RvDataCallback* callback) {
    if (!m_session) return kvx::kNoSession;
    const int thread = RRNReturnCheckThreadId();
    if (thread != kvx::kOk) return thread;
    int status = kvx::kOk;
    RvSender* const sender = senderForRequest(subject, &status);
    if (sender == nullptr) return status;
    const SenderUse use(*this, sender);
    const kvx::NetWatch watch = this->watch();
    std::unique_ptr<RvListener> reply(sender->sendRequest(datum, RNGetLatency(), callback, this));
    if (!watch.storageStands()) return kvx::kNoSession;
    if (!reply) {
        kvx::warn("Rendezvous Error : failed to open RPC listener\n");
        return kvx::kNotSent;
    }
    const int stored = storeReply(reply.release());
    if (stored != kvx::kOk) kvx::report(stored, rvNet::kFile, rvNet::StoreReplyListener);
    return kvx::kOk;
}

/// The sender for requests on `subject`. A sender that could not be made is registered as null, and
/// later calls leave `*status` at 1.
RvSender* CVekRvNet::senderForRequest(const char* subject, int* status) {
    const kvx::Text qualified(RRNDomainSubj(subject));
    if (!qualified) {
        *status = kvx::kInvalidArgument;
        return nullptr;
    }
    const CVekThread::AutoMutex guard(*m_lock);
    if (!m_senders) {
        *status = kvx::kNoSession;
        return nullptr;
    }
    if (const CVekPointer* const entry = m_senders->RTLGet(qualified.get())) {
        return pointeeOf<RvSender>(entry);
    }
    RvSender* const sender = RRNNewSender(status, qualified.get(), nullptr);
    if (addEntry(m_senders.get(), qualified.get(), sender) == kvx::kOk) noteSender(qualified.get());
    return sender;
}

RvSender* CVekRvNet::RRNSendOnSubject(char* subject, RvDatum& datum) {
    if (subject == nullptr) return nullptr;
    const int thread = RRNReturnCheckThreadId();
    if (thread != kvx::kOk) {
        kvx::report(thread, rvNet::kFile, rvNet::SendOffMainThread);
        return nullptr;
    }
    const std::string key = subject;  // `subject` may be that of a sender
    const std::shared_ptr<CVekThread> lock = m_lock;
    const CVekThread::AutoMutex guard(*lock);
    if (!m_senders) return nullptr;
    if (m_senders->RTLGet(key.c_str()) == nullptr) return sendOnNewSender(key.c_str(), datum);
    RvSender* const sender = registeredSender(key.c_str());
    if (sender == nullptr) return nullptr;
    const SenderUse use(*this, sender);
    const kvx::NetWatch watch = this->watch();
    if (sender->send(datum).code() != 0 || !watch.storageStands()) return nullptr;
    return registeredSender(key.c_str()) == sender ? sender : nullptr;
}

/// Sends on a new sender and registers it; on failure registers nothing.
RvSender* CVekRvNet::sendOnNewSender(const char* subject, RvDatum& datum) {
    int status = kvx::kOk;
    std::unique_ptr<RvSender> sender(RRNNewSender(&status, subject, nullptr));
    const kvx::NetWatch watch = this->watch();
    if (!sender || sender->send(datum).code() != 0 || !watch.storageStands()) return nullptr;
    // User code run by the send may have sent on the same subject.
    if (RvSender* const registered = registeredSender(subject)) return registered;
    const int stored = addEntry(m_senders.get(), subject, sender.get());
    if (stored != kvx::kOk) {
        kvx::report(stored, rvNet::kFile, rvNet::StoreSender);
        return nullptr;
    }
    noteSender(subject);
    return sender.release();
}

RvSender* CVekRvNet::registeredSender(const char* subject) const {
    return m_senders ? pointeeOf<RvSender>(m_senders->RTLGet(subject)) : nullptr;
}

CVekRvNet::SenderUse::SenderUse(CVekRvNet& net, const RvSender* sender)
    : m_net(net), m_sender(sender), m_watch(net.watch()) {
    const CVekThread::AutoMutex guard(*net.m_lock);
    net.m_sendersInUse.push_back(sender);
}

CVekRvNet::SenderUse::~SenderUse() {
    if (!m_watch.storageStands()) return;
    const CVekThread::AutoMutex guard(*m_net.m_lock);
    auto& inUse = m_net.m_sendersInUse;
    inUse.erase(std::ranges::find(inUse, m_sender));
}

void CVekRvNet::noteSender(const char* subject) {
    if (!std::string_view(subject).starts_with(kInboxPrefix)) return;
    m_inboxSenders.emplace_back(subject);
    if (m_inboxSenders.size() <= kKeptInboxSenders) return;
    const auto isInUse = [this](const std::string& inbox) {
        return std::ranges::count(m_sendersInUse, registeredSender(inbox.c_str())) != 0;
    };
    const auto newest = m_inboxSenders.end() - 1;  // the caller is about to return it
    const auto oldest = std::find_if_not(m_inboxSenders.begin(), newest, isInUse);
    if (oldest == newest) return;
    const std::string evicted = std::move(*oldest);
    m_inboxSenders.erase(oldest);
    const std::unique_ptr<RvSender> sender(registeredSender(evicted.c_str()));
    m_senders->RTLDelete(evicted.c_str());
}

int CVekRvNet::RRNDereferenceSender(RvSender* sender) {
    if (sender == nullptr || sender->subject() == nullptr) return kvx::kMissingArgument;
    const CVekThread::AutoMutex guard(*m_lock);
    if (!m_senders) return kvx::kNotFound;
    const int result = m_senders->RTLDelete(sender->subject(), static_cast<void*>(sender));
    const std::string_view subject = sender->subject();
    if (result == kvx::kOk && subject.starts_with(kInboxPrefix)) {
        std::erase(m_inboxSenders, subject);
    }
    return result;
}

int CVekRvNet::storeListener(RvListener* listener) {
    const CVekThread::AutoMutex guard(*m_lock);
    if (!m_listeners) return kvx::kNoSession;
    // Entered twice, a listener would be deleted twice.
    if (holdsListener(*m_listeners, *listener)) return kvx::kKeyPresent;
    return addEntry(m_listeners.get(), listener->subject(), listener);
}

int CVekRvNet::RRNStoreListener(RvListener* listener) {
    return listener != nullptr ? storeListener(listener) : kvx::kInvalidArgument;
}

/// Registers a reply listener, and checks two older ones, which it deletes when their callback was
/// destroyed: this bounds those that are never removed.
int CVekRvNet::storeReply(RvListener* reply) {
    std::vector<std::unique_ptr<RvListener>> dead;  // dies after the lock's guard
    const CVekThread::AutoMutex guard(*m_lock);
    const int result = storeListener(reply);
    if (result != kvx::kOk) return result;
    for (int looks = 0; looks < kReplyLooks && !m_replies.empty(); ++looks) {
        std::string subject = std::move(m_replies.front());
        m_replies.pop_front();
        auto* const older = pointeeOf<RvListener>(m_listeners->RTLGet(subject.c_str()));
        if (older == nullptr) continue;
        if (older->callback() != nullptr) {
            m_replies.push_back(std::move(subject));
        } else if (m_listeners->RTLDelete(subject.c_str(), static_cast<void*>(older)) == kvx::kOk) {
            dead.emplace_back(older);
        }
    }
    m_replies.emplace_back(reply->subject());
    return result;
}

int CVekRvNet::RRNDereferenceListener(RvListener* listener) {
    if (listener == nullptr) return kvx::kMissingArgument;
    const CVekThread::AutoMutex guard(*m_lock);
    if (!m_listeners) return kvx::kNotFound;
    return m_listeners->RTLDelete(listener->subject(), static_cast<void*>(listener));
}

int CVekRvNet::RRNRemoveListener(const char* subject) {
    if (subject == nullptr) return kvx::kMissingArgument;
    // `subject` may belong to a listener that is deleted here.
    const std::string key = subject;
    std::vector<std::unique_ptr<RvListener>> removed;  // dies after the lock's guard
    const CVekThread::AutoMutex guard(*m_lock);
    if (!m_listeners) return kvx::kOk;
    const std::unique_ptr<CVekDoubleList> entries(m_listeners->RTLGetMult(key.c_str()));
    int result = kvx::kOk;
    for (CVekListable* entry = entries->RDLHead(); entry != nullptr;
         entry = entries->RDLGetNext(entry)) {
        auto* const listener = pointeeOf<RvListener>(entry);
        result = m_listeners->RTLDelete(key.c_str(), static_cast<void*>(listener));
        if (result == kvx::kOk) removed.emplace_back(listener);
    }
    return result;
}

int CVekRvNet::RRNAddTimer(int interval, RvTimerCallback* callback) {
    return addTimer(interval, rv_FALSE, callback);
}

int CVekRvNet::RRNAddRepeatTimer(int interval, RvTimerCallback* callback) {
    return addTimer(interval, rv_TRUE, callback);
}

int CVekRvNet::addTimer(int interval, rv_Boolean repeat, RvTimerCallback* callback) {
    if (!m_session) return kvx::kNoSession;
    // Checked first: a timer requested from another thread may fire before it is registered here.
    const bool isOwn = dynamic_cast<kvx::DiesWithTimer*>(callback) != nullptr;
    int status = kvx::kOk;
    RvTimer* const timer =
        RRNNewTimer(&status, static_cast<unsigned int>(interval), repeat, callback, this);
    if (timer == nullptr) return kvx::kInvalidArgument;
    const CVekThread::AutoMutex guard(*m_lock);
    if (!m_timers) {
        OwnedTimer(timer).reset();
        return kvx::kNoSession;
    }
    auto* const place = new CVekPointer(timer);
    m_timers->RDLAddToListEnd(place);
    m_timerPlaces[timer] = place;
    if (isOwn) m_ownTimers.push_back(timer);
    return status;
}

int CVekRvNet::RRNRemoveTimer(RvTimer* timer) {
    if (timer == nullptr) return kvx::kMissingArgument;
    kvx::trace(kvx::kTraceCalls, "RRNRemoveTimer() deleting timer ", timer, "\n");
    OwnedTimer removed;  // dies after the lock's guard
    const CVekThread::AutoMutex guard(*m_lock);
    const auto place = m_timerPlaces.find(timer);
    if (place == m_timerPlaces.end()) return kvx::kNotFound;
    kvx::trace(kvx::kTraceCalls, "RRNRemoveTimer() deleted timer ", timer, "\n");
    removed.reset(timer);
    CVekListable* const entry = place->second;
    m_timerPlaces.erase(place);
    std::erase(m_ownTimers, timer);
    return m_timers->RDLDeleteListable(entry);
}

/// Removes the library's own one-shot timers that have fired.
void CVekRvNet::sweepSpentTimers() {
    std::vector<OwnedTimer> spent;  // dies after the lock's guard
    const CVekThread::AutoMutex guard(*m_lock);
    std::erase_if(m_ownTimers, [&](RvTimer* timer) {
        if (!isSpent(*timer)) return false;
        m_timers->RDLDeleteListable(m_timerPlaces.extract(timer).mapped());
        spent.emplace_back(timer);
        return true;
    });
}

int CVekRvNet::RRNAddPostInitTimer() {
    struct StartUpHook final : CVekPostInitTimedClb, kvx::DiesWithTimer {};
    auto hook = std::make_unique<StartUpHook>();
    const int result = RRNAddTimer(kPostInitInterval, hook.get());
    if (result == kvx::kOk) static_cast<void>(hook.release());
    return result;
}

int CVekRvNet::RRNAddIOHandle(unsigned int socket, __boolean read, __boolean write,
                              __boolean exception, RvIOCallback* callback) {
    if (!m_session) return kvx::kNoSession;
    bool chosen = read != FALSE;
    const auto choose = [&chosen](__boolean wanted, int line) {
        if (wanted != FALSE && chosen) {
            kvx::report(kvx::kIoTypeChosen, rvNet::kFile, line,
                        "The Type of IO handler has already been chosen.\n");
        }
        chosen = chosen || wanted != FALSE;
    };
    choose(write, rvNet::IoTypeWrite);
    choose(exception, rvNet::IoTypeException);
    // The handler always watches for readability.
    int status = kvx::kOk;
    RvIO* const io = RRNNewIO(&status, socket, RVEVM_READ, callback, this);
    keepStray(io, status);
    return status;
}

/// Lets the net own a handler whose socket has a registered one already.
void CVekRvNet::keepStray(RvIO* io, int status) {
    if (io == nullptr || status == kvx::kOk) return;
    const CVekThread::AutoMutex guard(*m_lock);
    m_strayHandlers.emplace_back(io);
}

int CVekRvNet::RRNRemoveIO(unsigned int socket) {
    int result = RRNReturnCheckThreadId();
    if (result != kvx::kOk) kvx::report(result, rvNet::kFile, rvNet::RemoveIoOffMainThread);
    const int key = static_cast<int>(socket);
    const CVekThread::AutoMutex guard(*m_lock);
    std::erase_if(m_strayHandlers, [socket](const auto& io) { return io->socket() == socket; });
    const CVekPointer* const entry = m_ioHandlers ? m_ioHandlers->RTLGet(key) : nullptr;
    if (entry == nullptr) return result;
    delete pointeeOf<RvIO>(entry);
    const int removed = m_ioHandlers->RTLDelete(key);
    if (removed != kvx::kOk) {
        kvx::report(removed, rvNet::kFile, rvNet::RemoveIoEntry, "CVekEngine::RemoveIO");
        result = removed;
    }
    return result;
}

void CVekRvNet::RRNDoIt() {
    if (m_sessionUp != 1) return;
    const int added = RRNAddPostInitTimer();
    if (added != kvx::kOk) kvx::report(added, rvNet::kFile, rvNet::AddPostInitTimer);
    if (m_session) {
        rv_RunOnce(m_session->handle());
    } else {
        RRNStartNet();
    }
}

void CVekRvNet::RRNStopLoop() {
    if (m_session) rv_StopLoop(m_session->handle());
}
