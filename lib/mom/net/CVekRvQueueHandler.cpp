// Serving the requests of other threads. A tick pops requests until the stack is empty, makes each
// object through the net's own operation and posts it under the thread's id. The request mutex is
// not held while an object is made or an error is reported, since both may run user code. The end
// of the session deletes queue and handler: after it only locals are used, and the unclaimed object
// is deleted.

#include "mom/net/CVekRvQueueHandler.h"

#include <limits>
#include <string>

#include "mom/base/VekTrace.h"
#include "mom/net/CVekRvNet.h"

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

// Whether a request may be served. An invalid one is reported and never answered.
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
    CVekRvNet& net = *m_net;
    const kvx::NetWatch watch = net.watch();
    net.sweepSpentTimers();
    while (watch.queueStands()) {
        void* const request = nextRequest(net);
        if (request == nullptr) return;
        dispatch(request);
    }
}

void* CVekRvQueueHandler::nextRequest(CVekRvNet& net) {
    const CVekAutoMutex guard(net.m_requestMutex);
    return net.m_requests ? net.m_requests->RSPop() : nullptr;
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

/// Posts `made`. The net owns it until its thread has taken it; it keeps an I/O handler.
void CVekRvQueueHandler::post(CVekRvNet& net, const kvx::NetWatch& watch, int threadId,
                              const Made& made) {
    std::unique_ptr<RvSessionObject> unclaimed(made.unclaimed);
    if (made.object == nullptr) {
        kvx::report(kvx::kNotCreated, kQueueHandlerFile, made.notMadeLine);
    }
    if (!watch.queueStands()) return;
    int result = kvx::kOk;
    {
        const CVekAutoMutex guard(net.m_requestMutex);
        result = net.m_answers->RTLAdd(threadId, made.object);
        if (result == kvx::kOk && unclaimed) net.m_unclaimed[threadId] = unclaimed.release();
    }
    if (result != kvx::kOk) kvx::report(result, kQueueHandlerFile, made.notPostedLine);
}

void CVekRvQueueHandler::RRQIONewIO(SVekRvQueueIO* request) {
    const std::unique_ptr<SVekRvQueueIO> owned(request);
    const bool valid = request->m_threadId >= 0 && request->m_socket != kNoSocket &&
                       request->m_callback != nullptr;
    if (!isValidRequest(valid, queueLine::IoInvalid)) return;
    CVekRvNet& net = *m_net;
    const kvx::NetWatch watch = net.watch();
    int status = kvx::kOk;
    RvIO* const io = net.RRNNewIO(&status, request->m_socket, request->m_eventType,
                                  request->m_callback, request->m_closure);
    if (watch.queueStands()) net.keepStray(io, status);
    post(net, watch, request->m_threadId,
         {io, nullptr, queueLine::IoNotMade, queueLine::IoNotPosted});
}

void CVekRvQueueHandler::RRQIONewSender(SVekRvQueueSender* request) {
    const std::unique_ptr<SVekRvQueueSender> owned(request);
    const bool valid = request->m_threadId >= 0 && request->m_subject != nullptr;
    if (!isValidRequest(valid, queueLine::SenderInvalid)) return;
    CVekRvNet& net = *m_net;
    const kvx::NetWatch watch = net.watch();
    int status = kvx::kOk;
    RvSender* const sender = net.RRNNewSender(&status, request->m_subject, request->m_replySubject);
    post(net, watch, request->m_threadId,
         {sender, sender, queueLine::SenderNotMade, queueLine::SenderNotPosted});
}

void CVekRvQueueHandler::RRQIONewListener(SVekRvQueueListener* request) {
    const std::unique_ptr<SVekRvQueueListener> owned(request);
    const bool valid = request->m_threadId >= 0 && request->m_callback != nullptr;
    if (!isValidRequest(valid, queueLine::ListenerInvalid)) return;
    CVekRvNet& net = *m_net;
    const kvx::NetWatch watch = net.watch();
    int status = kvx::kOk;
    RvListener* const listener = net.RRNNewListener(&status, request->m_subject, request->m_timeout,
                                                    request->m_callback, request->m_closure);
    post(net, watch, request->m_threadId,
         {listener, listener, queueLine::ListenerNotMade, queueLine::ListenerNotPosted});
}

void CVekRvQueueHandler::RRQIONewTimer(SVekRvQueueTimer* request) {
    const std::unique_ptr<SVekRvQueueTimer> owned(request);
    const bool valid = request->m_threadId >= 0 && request->m_callback != nullptr;
    if (!isValidRequest(valid, queueLine::TimerInvalid)) return;
    CVekRvNet& net = *m_net;
    const kvx::NetWatch watch = net.watch();
    int status = kvx::kOk;
    RvTimer* const timer = net.RRNNewTimer(&status, request->m_interval, request->m_repeat,
                                           request->m_callback, request->m_closure);
    post(net, watch, request->m_threadId,
         {timer, timer, queueLine::TimerNotMade, queueLine::TimerNotPosted});
}
