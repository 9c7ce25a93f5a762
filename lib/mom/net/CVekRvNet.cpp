// The life of a network object: session, registries and agent.
//
// Construction opens the session; nothing but a report tells of a failure, and every operation
// checks for itself that there is a session. Termination deletes the request queue, then the
// session, and only then what was made from the session: those objects find their session closed
// and make no calls into it any more. What a registry gave up without deleting it (the timers of an
// old list, an emptied stack of callbacks) stays with the net until it dies, so that a process that
// ends cleanly has released everything.
//
// The registries and the main loop are in CVekRvNetRegistry.cpp, the creation of bus objects for
// any thread is in CVekRvNetActivity.cpp.

#include "mom/net/CVekRvNet.h"

#include <string>

#include "mom/net/CVekRvNetLines.h"
#include "mom/net/DaemonAddress.h"
#include "mom/net/DiesWithTimer.h"
#include "mom/net/VekCodes.h"
#include "mom/net/VekTrace.h"

namespace {

constexpr char kDefaultDomain[] = "DEFAULT";
constexpr unsigned long kRequestTick = 100;  // milliseconds between two drains of the requests

// Deletes every object of type `Object` that `registry` holds, and the registry.
template <class Object>
void dropRegistry(std::unique_ptr<CVekTreeList>& registry) {
    const std::unique_ptr<CVekTreeList> dropped = std::move(registry);
    if (!dropped) return;
    const std::unique_ptr<CVekDoubleList> entries(dropped->RTLIterator());
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
            return;  // nobody knows what it is
    }
}

}  // namespace

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

CVekRvNet::CVekRvNet(unsigned long latency, const char* domain) : CVekNet(latency, domain) {
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

// --- Opening the session ---------------------------------------------------------------------

int CVekRvNet::RRNInitSession() {
    m_mainThreadId = CVekThread::RTId();
    ensureDomain();
    rv_SetTraceLevel(&__ZembraLix_Debug_Level);
    int result = kvx::kOk;
    if (rv_Flavor(kvx::flavourId, kvx::flavourName, nullptr, 0, 0) != 0) {
        // A net without a session that calls itself up: its loop goes to RRNStartNet.
        kvx::warn("Rendezvous failed to flavor session\n");
        kvx::report(kvx::kNoSession, kvx::rvNet::kFile, kvx::rvNet::Flavour);
    } else {
        result = startSession();
    }
    if (result == kvx::kOk) m_sessionUp = 1;
    return result;
}

void CVekRvNet::ensureDomain() {
    if (m_domain) return;
    kvx::warn("ERROR: Domain Name is NULL, using default.\n");
    m_domain = kvx::copyText(kDefaultDomain);
    if (!m_domain) kvx::report(kvx::kNoMemory, kvx::rvNet::kFile, kvx::rvNet::DefaultDomain);
}

int CVekRvNet::startSession() {
    const int opened = openCoreSession();
    if (opened != kvx::kOk) return opened;
    dropRequestQueue();
    const int stored = RRNOpenStorage();
    if (stored != kvx::kOk) kvx::report(stored, kvx::rvNet::kFile, kvx::rvNet::OpenStorage);
    if (m_session) {
        const int queued = RRNCreateQueueListener();
        if (queued != kvx::kOk) kvx::report(queued, kvx::rvNet::kFile, kvx::rvNet::CreateQueue);
    }
    return listenForAdvisories();
}

int CVekRvNet::openCoreSession() {
    const kvx::DaemonAddress address = kvx::readDaemonAddress(m_cfgParser);
    rv_Session core = nullptr;
    const int code = rv_Open(&core, address.service, address.network, address.daemon);
    if (code != 0) {
        kvx::warn("Rendezvous failed to make session: ", rv_ErrorText(code), "\n");
        return kvx::kNoSession;
    }
    m_session = std::make_unique<RvSession>(core);
    if (m_session->status().code() != 0) {
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
    const CVekThread::AutoMutex guard(*m_lock);
    dropRegistry<RvListener>(m_listeners);
    m_listeners = std::make_unique<CVekTreeList>(true);
    dropTakenCallbacks();
    if (m_takenCallbacks) m_retiredStacks.push_back(std::move(m_takenCallbacks));
    m_takenCallbacks = std::make_unique<CVekStack>(-1);
    retireTimers();
    m_timers = std::make_unique<CVekDoubleList>();
    dropRegistry<RvSender>(m_senders);
    m_senders = std::make_unique<CVekTreeList>(false);
    m_inboxSenders.clear();
    dropRegistry<RvIO>(m_ioHandlers);
    m_strayHandlers.clear();
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

// --- Closing it ------------------------------------------------------------------------------

int CVekRvNet::RRNTerminateSession() {
    RRNCheckThreadId();
    {
        const CVekThread::AutoMutex guard(*m_lock);
        m_sessionUp = 0;
    }
    dropRequestQueue();
    m_session.reset();
    dropUnclaimedAnswers();
    const CVekThread::AutoMutex guard(*m_lock);
    dropRegistry<RvSender>(m_senders);
    m_inboxSenders.clear();
    dropRegistry<RvIO>(m_ioHandlers);
    m_strayHandlers.clear();
    dropRegistry<RvListener>(m_listeners);
    dropTakenCallbacks();
    m_takenCallbacks.reset();
    dropTimers();
    return kvx::kOk;
}

void CVekRvNet::dropRequestQueue() {
    m_queueHandler.reset();
    m_queueTimer.reset();
    const CVekAutoMutex guard(m_requestMutex);
    while (void* request = m_requests ? m_requests->RSPop() : nullptr) deleteRequest(request);
    m_requests.reset();
    m_answers.reset();
}

void CVekRvNet::dropUnclaimedAnswers() {
    const CVekAutoMutex guard(m_requestMutex);
    for (const auto& [threadId, object] : m_unclaimed) delete object;
    m_unclaimed.clear();
}

void CVekRvNet::dropTakenCallbacks() const {
    while (void* callback = m_takenCallbacks ? m_takenCallbacks->RSPop() : nullptr) {
        delete static_cast<RvDataCallback*>(callback);
    }
}

void CVekRvNet::dropTimers() {
    retireTimers();
    m_timers.reset();
    m_retiredTimers.clear();
}

void CVekRvNet::retireTimers() {
    if (!m_timers) return;
    for (CVekListable* entry = m_timers->RDLHead(); entry != nullptr;
         entry = m_timers->RDLGetNext(entry)) {
        auto* const timer = static_cast<RvTimer*>(static_cast<CVekPointer*>(entry)->RPData());
        if (timer != nullptr) m_retiredTimers.emplace_back(timer);
    }
}

// --- The bus agent ---------------------------------------------------------------------------

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
