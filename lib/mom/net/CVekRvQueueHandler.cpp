#include "mom/net/CVekRvQueueHandler.h"

#include <limits>
#include <string>

#include "mom/net/CVekRvNet.h"
#include "mom/net/VekCodes.h"

namespace {

constexpr char kQueueHandlerFile[] = "CVekRvQueueHandler";

namespace queueLine {
enum Line : int {
    NoNet = 84,
    UnknownType = 151,
    IoInvalid = 197,
    IoNotMade = 211,
    IoNotPosted = 217,
    SenderInvalid = 244,
    SenderNotMade = 256,
    SenderNotPosted = 262,
    ListenerInvalid = 289,
    ListenerNotMade = 303,
    ListenerNotPosted = 309,
    TimerInvalid = 336,
    TimerNotMade = 350,
    TimerNotPosted = 356,
};
}

constexpr unsigned int kNoSocket = std::numeric_limits<unsigned int>::max();

// Whether a request may be served. One that may not is reported, dropped and never answered.
bool isValidRequest(bool valid, int line) {
    if (!valid) kvx::report(kvx::kInvalidRequest, kQueueHandlerFile, line);
    return valid;
}

}  // namespace

CVekRvQueueHandler::CVekRvQueueHandler(CVekRvNet* net) : m_net(net) {
    if (net == nullptr) {
        kvx::report(kvx::kInvalidArgument, kQueueHandlerFile, queueLine::NoNet);
    }
}

CVekRvQueueHandler& CVekRvQueueHandler::operator=(const CVekRvQueueHandler&) = default;

CVekRvQueueHandler::~CVekRvQueueHandler() {
    m_net = nullptr;
}

void CVekRvQueueHandler::onTimer(RvTimer*) {
    if (m_net == nullptr) return;
    m_net->sweepSpentTimers();
    const CVekAutoMutex guard(m_net->m_requestMutex);
    while (void* request = m_net->m_requests ? m_net->m_requests->RSPop() : nullptr) {
        dispatch(request);
    }
}

void CVekRvQueueHandler::dispatch(void* request) {
    const std::int32_t type = *static_cast<const std::int32_t*>(request);
    switch (type) {
        case VEK_QUEUE_SENDER:
            return RRQIONewSender(static_cast<SVekRvQueueSender*>(request));
        case VEK_QUEUE_LISTENER:
            return RRQIONewListener(static_cast<SVekRvQueueListener*>(request));
        case VEK_QUEUE_IO:
            return RRQIONewIO(static_cast<SVekRvQueueIO*>(request));
        case VEK_QUEUE_TIMER:
            return RRQIONewTimer(static_cast<SVekRvQueueTimer*>(request));
        default:
            break;
    }
    const std::string text = "CVekRvQueueHandler::onTimer() does not support type " +
                             std::to_string(type) + ", please extend me!";
    kvx::report(kvx::kUnknownRequest, kQueueHandlerFile, queueLine::UnknownType, text.c_str());
}

/// Posts `object`, which may be null. Until its thread has taken it, the net keeps `unclaimed`: the
/// object, unless a registry owns it already.
void CVekRvQueueHandler::post(int threadId, void* object, RvSessionObject* unclaimed,
                              int notMadeLine, int notPostedLine) {
    if (object == nullptr) kvx::report(kvx::kNotCreated, kQueueHandlerFile, notMadeLine);
    const int result = m_net->m_answers->RTLAdd(threadId, object);
    if (result != kvx::kOk) {
        kvx::report(result, kQueueHandlerFile, notPostedLine);
        delete unclaimed;
    } else if (unclaimed != nullptr) {
        m_net->m_unclaimed[threadId] = unclaimed;
    }
}

void CVekRvQueueHandler::RRQIONewIO(SVekRvQueueIO* request) {
    const std::unique_ptr<SVekRvQueueIO> owned(request);
    const bool valid = request->m_threadId >= 0 && request->m_socket != kNoSocket &&
                       request->m_callback != nullptr;
    if (!isValidRequest(valid, queueLine::IoInvalid)) return;
    int status = kvx::kOk;
    RvIO* const io = m_net->RRNNewIO(&status, request->m_socket, request->m_eventType,
                                     request->m_callback, request->m_closure);
    const bool registered = status == kvx::kOk;
    post(request->m_threadId, io, registered ? nullptr : io, queueLine::IoNotMade,
         queueLine::IoNotPosted);
}

void CVekRvQueueHandler::RRQIONewSender(SVekRvQueueSender* request) {
    const std::unique_ptr<SVekRvQueueSender> owned(request);
    const bool valid = request->m_threadId >= 0 && request->m_subject != nullptr;
    if (!isValidRequest(valid, queueLine::SenderInvalid)) return;
    int status = kvx::kOk;
    RvSender* const sender =
        m_net->RRNNewSender(&status, request->m_subject, request->m_replySubject);
    post(request->m_threadId, sender, sender, queueLine::SenderNotMade, queueLine::SenderNotPosted);
}

void CVekRvQueueHandler::RRQIONewListener(SVekRvQueueListener* request) {
    const std::unique_ptr<SVekRvQueueListener> owned(request);
    const bool valid = request->m_threadId >= 0 && request->m_callback != nullptr;
    if (!isValidRequest(valid, queueLine::ListenerInvalid)) return;
    int status = kvx::kOk;
    RvListener* const listener = m_net->RRNNewListener(
        &status, request->m_subject, request->m_timeout, request->m_callback, request->m_closure);
    post(request->m_threadId, listener, listener, queueLine::ListenerNotMade,
         queueLine::ListenerNotPosted);
}

void CVekRvQueueHandler::RRQIONewTimer(SVekRvQueueTimer* request) {
    const std::unique_ptr<SVekRvQueueTimer> owned(request);
    const bool valid = request->m_threadId >= 0 && request->m_callback != nullptr;
    if (!isValidRequest(valid, queueLine::TimerInvalid)) return;
    int status = kvx::kOk;
    RvTimer* const timer = m_net->RRNNewTimer(&status, request->m_interval, request->m_repeat,
                                              request->m_callback, request->m_closure);
    post(request->m_threadId, timer, timer, queueLine::TimerNotMade, queueLine::TimerNotPosted);
}
