// A network object's session, registries and agent: opening and closing.
//
// Construction opens the session; a failure is only reported, and every operation checks that there
// is a session. Termination first moves everything out of the net and then deletes it: the request
// queue, then the session, then the objects made from the session, which find it closed and make no
// calls into it any more. Closing and deleting may run user code (hooks, destructors of callbacks),
// which sees a terminated net, holds no lock of it, and may destroy it. Objects that a registry
// dropped without deleting them (the timers of an old list, an emptied stack of callbacks) are
// deleted with the net.
//
// After a call that may run user code, a `kvx::NetWatch` says what is left of the net.
//
// The registries and the main loop are in CVekRvNetRegistry.cpp, the creation of bus objects for
// any thread is in CVekRvNetCreate.cpp.

#include "mom/net/CVekRvNet.h"

#include <string>
#include <utility>

#include "mom/base/VekTrace.h"
#include "mom/config/ReadConfiguration.h"
#include "mom/net/CVekRvNetLines.h"
#include "mom/net/DiesWithTimer.h"
#include "mom/net/LoopPosts.h"
#include "mom/net/LoopThread.h"
#include "rv/wire/Limits.h"

namespace {

constexpr char kDefaultDomain[] = "DEFAULT";
constexpr unsigned long kRequestTick = 100;  // milliseconds between two drains of the requests

// Deletes every object of type `Object` that `registry` holds.
template <class Object>
void deleteAll(const CVekTreeList* registry) {
    if (registry == nullptr) return;
    const std::unique_ptr<CVekDoubleList> entries(registry->RTLIterator());
    for (CVekListable* entry = entries->RDLHead(); entry != nullptr;
         entry = entries->RDLGetNext(entry)) {
        delete static_cast<Object*>(static_cast<CVekPointer*>(entry)->RPData());
    }
}

void deleteRequest(void* request) {
    switch (*static_cast<const std::int32_t*>(request)) {
        case VEK_QUEUE_SENDER:
            return delete static_cast<SVekRvQueueSender*>(request);
        case VEK_QUEUE_LISTENER:
            return delete static_cast<SVekRvQueueListener*>(request);
        case VEK_QUEUE_IO:
            return delete static_cast<SVekRvQueueIO*>(request);
        case VEK_QUEUE_TIMER:
            return delete static_cast<SVekRvQueueTimer*>(request);
        default:
            return;  // of unknown type
    }
}

}  // namespace

/// What a net has dropped, deleted in the order of its destructor.
struct CVekRvNet::Storage {
    Storage() = default;
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;
    ~Storage() {
        queueHandler.reset();
        queueTimer.reset();
        while (void* request = requests ? requests->RSPop() : nullptr) deleteRequest(request);
        session.reset();
        for (const auto& [threadId, object] : unclaimed) delete object;
        deleteAll<RvSender>(senders.get());
        deleteAll<RvIO>(ioHandlers.get());
        strayHandlers.clear();
        deleteAll<RvListener>(listeners.get());
        callbacks.clear();
        timers.clear();
    }

    std::shared_ptr<const void> loopClaim;
    std::unique_ptr<CVekRvQueueHandler> queueHandler;
    std::unique_ptr<RvTimer> queueTimer;
    std::unique_ptr<CVekStack> requests;
    std::unique_ptr<CVekTreeList> answers;
    std::unique_ptr<RvSession> session;
    std::map<int, RvSessionObject*> unclaimed;
    std::unique_ptr<CVekTreeList> senders;
    std::unique_ptr<CVekTreeList> ioHandlers;
    std::vector<std::unique_ptr<RvIO>> strayHandlers;
    std::shared_ptr<kvx::LoopPosts> posts;
    std::unique_ptr<CVekTreeList> listeners;
    std::unique_ptr<CVekStack> callbackStack;
    std::vector<std::unique_ptr<RvDataCallback>> callbacks;
    std::vector<OwnedTimer> timers;
};

void CVekRvNet::TimerDeleter::operator()(RvTimer* timer) const {
    // A pending timer means that its callback has not run, so it has not deleted itself.
    auto* const unowned =
        timer->isPending() ? dynamic_cast<kvx::DiesWithTimer*>(timer->callback()) : nullptr;
    delete timer;
    delete unowned;
}

CVekRvNet::CVekRvNet() {
    start(kvx::rvNet::DefaultConstructor);
}

CVekRvNet::CVekRvNet(unsigned long latency, char* domain) : CVekNet(latency, domain) {
    start(kvx::rvNet::AdoptingConstructor);
}

CVekRvNet::CVekRvNet(unsigned long latency, const char* domain)
    : CVekRvNet(latency, domain, kvx::DaemonAddress()) {}

CVekRvNet::CVekRvNet(unsigned long latency, const char* domain, kvx::DaemonAddress address)
    : CVekNet(latency, domain), m_givenAddress(std::move(address)) {
    start(kvx::rvNet::CopyingConstructor);
}

CVekRvNet::~CVekRvNet() {
    RRNCheckThreadId();
    RRNTerminateSession();
    m_errorCallback.reset();
    m_processMgr.reset();
}

void CVekRvNet::start(int line) {
    const int result = RRNInitSession();
    if (result != kvx::kOk) kvx::report(result, kvx::rvNet::kFile, line);
}

void CVekRvNet::RRNStartNet() {}

void CVekRvNet::RRNSetPostInitFns(std::function<void()> fns) {
    m_postInitFns = std::move(fns);
}

void CVekRvNet::runPostInitFns() const {
    if (const auto fns = m_postInitFns) fns();
}

int CVekRvNet::RRNInitSession() {
    auto claim = claimLoop(kvx::rvNet::kFile, kvx::rvNet::OffMainThread);
    if (!claim) {
        if (!m_session) m_mainThreadId = CVekThread::RTId();
        return kvx::kOffMainThread;
    }
    m_loopClaim = std::move(claim);
    m_mainThreadId = CVekThread::RTId();
    ensureDomain();
    rv_SetTraceLevel(&__ZembraLix_Debug_Level);
    int result = kvx::kOk;
    if (rv_Flavor(kvx::flavourId, kvx::flavourName, nullptr, 0, 0) != 0) {
        // Without a session the net counts as up, and its main loop calls RRNStartNet.
        kvx::warn("Rendezvous failed to flavor session\n");
        kvx::report(kvx::kNoSession, kvx::rvNet::kFile, kvx::rvNet::Flavour);
    } else {
        result = startSession();
    }
    if (result == kvx::kOk) m_sessionUp = 1;
    return result;
}

std::shared_ptr<const void> CVekRvNet::claimLoop(const char* file, int line) {
    auto claim = kvx::claimLoopThread(this);
    if (!claim) {
        kvx::report(kvx::kOffMainThread, file, line,
                    "another thread of this process has a net already");
    }
    return claim;
}

void CVekRvNet::ensureDomain() {
    if (m_domain) return;
    kvx::warn("ERROR: Domain Name is NULL, using default.\n");
    m_domain = kvx::copyText(kDefaultDomain);
    if (!m_domain) kvx::report(kvx::kNoMemory, kvx::rvNet::kFile, kvx::rvNet::DefaultDomain);
}

int CVekRvNet::startSession() {
    const kvx::NetWatch watch = this->watch();
    const int opened = openCoreSession();
    if (!watch.queueStands()) return kvx::kNoSession;
    if (opened != kvx::kOk) return opened;
    {
        Storage dropped;
        takeRequestQueue(dropped);
    }
    const int stored = RRNOpenStorage();
    if (stored != kvx::kOk) kvx::report(stored, kvx::rvNet::kFile, kvx::rvNet::OpenStorage);
    if (m_session) {
        const int queued = RRNCreateQueueListener();
        if (queued != kvx::kOk) kvx::report(queued, kvx::rvNet::kFile, kvx::rvNet::CreateQueue);
    }
    return listenForAdvisories();
}

int CVekRvNet::openCoreSession() {
    const kvx::SessionAddress address = kvx::readConfiguration(m_cfgParser, m_givenAddress);
    rv_Session core = nullptr;
    const int code = rv_Open(&core, address.service, address.network, address.daemon);
    if (code != 0) {
        kvx::warn("Rendezvous failed to make session: ", rv_ErrorText(code), "\n");
        return kvx::kNoSession;
    }
    auto opened = std::make_unique<RvSession>(core);
    const bool failed = opened->status().code() != 0;
    const std::unique_ptr<RvSession> previous = std::exchange(m_session, std::move(opened));
    if (failed) {
        kvx::warn("Rendezvous exception at startup\n");
        return kvx::kNoSession;
    }
    return kvx::kOk;
}

int CVekRvNet::listenForAdvisories() {
    m_errorCallback = std::make_unique<CVekRvErrorClb>();
    const int result = RRNAddErrorService(m_errorCallback.get());
    if (result != kvx::kOk) {
        kvx::warn("Non fatal error: Rendezvous Error Handler failed to Initialise\n");
    }
    return result;
}

int CVekRvNet::RRNOpenStorage() {
    Storage dropped;  // destroyed after the lock's guard
    const CVekThread::AutoMutex guard(*m_lock);
    takeRegistries(dropped);
    if (dropped.callbackStack) m_retiredStacks.push_back(std::move(dropped.callbackStack));
    m_takenCallbacks = std::make_unique<CVekStack>(-1);
    m_listeners = std::make_unique<CVekTreeList>(true);
    m_timers = std::make_unique<CVekDoubleList>();
    m_senders = std::make_unique<CVekTreeList>(false);
    m_ioHandlers = std::make_unique<CVekTreeList>(false);
    return kvx::kOk;
}

int CVekRvNet::RRNCreateQueueListener() {
    {
        const CVekAutoMutex guard(m_requestMutex);
        m_requests = std::make_unique<CVekStack>(-1);
        m_answers = std::make_unique<CVekTreeList>(false);
    }
    m_queueHandler = std::make_unique<CVekRvQueueHandler>(this);
    int status = kvx::kOk;
    m_queueTimer.reset(RRNNewTimer(&status, kRequestTick, rv_TRUE, m_queueHandler.get(), this));
    return kvx::kOk;
}

int CVekRvNet::RRNTerminateSession() {
    RRNCheckThreadId();
    Storage dropped;  // destroyed last: its user code may destroy the net
    takeRequestQueue(dropped);
    const CVekThread::AutoMutex guard(*m_lock);
    m_sessionUp = 0;
    dropped.session = std::move(m_session);
    dropped.loopClaim = std::move(m_loopClaim);
    takeRegistries(dropped);
    dropped.timers = std::move(m_retiredTimers);
    return kvx::kOk;
}

void CVekRvNet::takeRequestQueue(Storage& dropped) {
    dropped.queueHandler = std::move(m_queueHandler);
    dropped.queueTimer = std::move(m_queueTimer);
    const CVekAutoMutex guard(m_requestMutex);
    dropped.posts = std::move(m_posts);
    ++m_ends->queue;
    dropped.requests = std::move(m_requests);
    dropped.answers = std::move(m_answers);
    dropped.unclaimed = std::exchange(m_unclaimed, {});
}

/// Moves all registries to `dropped`, and the timers to the retired ones.
void CVekRvNet::takeRegistries(Storage& dropped) {
    ++m_ends->storage;
    dropped.senders = std::move(m_senders);
    m_inboxSenders.clear();
    m_sendersInUse.clear();
    dropped.ioHandlers = std::move(m_ioHandlers);
    dropped.strayHandlers = std::exchange(m_strayHandlers, {});
    dropped.listeners = std::move(m_listeners);
    m_replies.clear();
    while (void* callback = m_takenCallbacks ? m_takenCallbacks->RSPop() : nullptr) {
        dropped.callbacks.emplace_back(static_cast<RvDataCallback*>(callback));
    }
    dropped.callbackStack = std::move(m_takenCallbacks);
    retireTimers();
}

void CVekRvNet::retireTimers() {
    if (!m_timers) return;
    for (CVekListable* entry = m_timers->RDLHead(); entry != nullptr;
         entry = m_timers->RDLGetNext(entry)) {
        auto* const timer = static_cast<RvTimer*>(static_cast<CVekPointer*>(entry)->RPData());
        if (timer != nullptr) m_retiredTimers.emplace_back(timer);
    }
    m_timers.reset();
    m_timerPlaces.clear();
    m_ownTimers.clear();
}

kvx::DaemonAddress CVekRvNet::RRNAddress() {
    const auto textOf = [](const CVekAtom* atom) {
        return std::string(atom != nullptr && atom->RAString() != nullptr ? atom->RAString() : "");
    };
    kvx::DaemonAddress address{textOf(m_cfgParser.RRCPGetService()),
                               textOf(m_cfgParser.RRCPGetNetwork()),
                               textOf(m_cfgParser.RRCPGetDaemon())};
    if (address.daemon.empty()) address.daemon = kvx::wire::kDefaultDaemon;
    return address;
}

int CVekRvNet::RRNStartAgent() {
    CVekString directory(CVekEnv::REVekHome());
    directory.RSStrCat("/bin");
    const std::string flavour = std::to_string(kvx::flavourId);
    std::vector<const char*> arguments = {"rva", "-foreground", "-flavor", flavour.c_str()};
    const auto addPair = [&arguments](const char* option, const CVekAtom* value) {
        if (value == nullptr) return;
        arguments.push_back(option);
        arguments.push_back(value->RAString());
    };
    addPair("-listen", m_cfgParser.RRCPGetRVAPort());
    addPair("-service", m_cfgParser.RRCPGetService());
    addPair("-network", m_cfgParser.RRCPGetNetwork());
    addPair("-daemon", m_cfgParser.RRCPGetDaemon());
    arguments.push_back(nullptr);

    if (!m_processMgr) m_processMgr = std::make_unique<CVekProcessMgr>();
    m_agentHandle =
        m_processMgr->StartProcess(directory.RSString(), "rva", arguments.data(), nullptr, nullptr);
    if (m_agentHandle.GetPID() == 0) {
        kvx::report(kvx::kNotCompleted, kvx::rvNet::kFile, kvx::rvNet::StartAgent,
                    "Unable to start Rendezvous Agent (rva), you may need to start this manually");
    } else {
        m_agentStarted = true;
    }
    return kvx::kOk;
}

int CVekRvNet::RRNStopAgent() {
    if (!m_agentStarted || !m_processMgr) return kvx::kOk;
    if (m_processMgr->KillProcess(m_agentHandle)) {
        const std::string text = "Unable to stop Rendezvous Agent (rva) with PID: " +
                                 std::to_string(m_agentHandle.GetPID());
        kvx::report(kvx::kNotCompleted, kvx::rvNet::kFile, kvx::rvNet::StopAgent, text.c_str());
    } else {
        m_agentStarted = false;
    }
    return kvx::kOk;
}
