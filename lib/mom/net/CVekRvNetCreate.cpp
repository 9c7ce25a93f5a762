// Creating bus objects, from any thread.
//
// On the main thread an object is made at once. Another thread pushes a request record on the
// request stack and polls for the answer, which the queue handler posts under the thread's id after
// making the object in the main loop (CVekRvQueueHandler.cpp). Only one thread at a time has a
// pending request: it holds the caller mutex from the push to the removal of its answer. The
// request mutex is held only for the push, each poll and the removal, never while waiting, so the
// main thread does not wait for a requester. A failure is reported after both are released: the
// error handler may make another request.
//
// Making a listener may run user code, and that may end the session or the net.
//
// Answers are keyed by thread id alone. An answer that comes after its requester gave up is taken
// by that thread's next request. The end of a session deletes stack and answers; the requester
// detects it by `m_askedQueue`, even when the next session has begun.

#include <string>

#include "mom/base/VekTrace.h"
#include "mom/net/CVekRvNet.h"
#include "mom/net/CVekRvNetLines.h"

namespace rvNet = kvx::rvNet;

/// The report lines of the steps of a request.
struct CVekRvNet::RequestLines {
    int timedOut;
    int notMade;
    int noQueue;
};

namespace {

constexpr int kAnswerPolls = 10800;
constexpr unsigned int kAnswerPollInterval = 111;  // milliseconds
constexpr int kSessionClosed = 2;                  // code of an object's status

std::string listenerName(const char* subject, unsigned long timeout) {
    return std::string(kvx::textOrNull(subject)) + "/" + std::to_string(timeout);
}

// The callbacks are only stored and passed on; the session takes them without `const`.
RvDataCallback* forSession(const RvDataCallback* callback) {
    return const_cast<RvDataCallback*>(callback);
}

RvTimerCallback* forSession(const RvTimerCallback* callback) {
    return const_cast<RvTimerCallback*>(callback);
}

void ownText(std::string& own, const char*& text) {
    if (text != nullptr) text = (own = text).c_str();
}

// Gives a request its own copies of the caller's texts.
template <class Record>
void ownTexts(Record& record) {
    if constexpr (requires { record.m_ownSubject; }) ownText(record.m_ownSubject, record.m_subject);
    if constexpr (requires { record.m_ownReplySubject; }) {
        ownText(record.m_ownReplySubject, record.m_replySubject);
    }
}

}  // namespace

void CVekRvNet::RRNCheckThreadId() {
    const int result = RRNReturnCheckThreadId();
    if (result != kvx::kOk) kvx::report(result, rvNet::kFile, rvNet::OffMainThread);
}

int CVekRvNet::RRNReturnCheckThreadId() {
    return CVekThread::RTId() == m_mainThreadId ? kvx::kOk : kvx::kOffMainThread;
}

/// Makes an object with `create`, and sets `*status`.
template <class Create>
auto CVekRvNet::createHere(int* status, Create create) {
    decltype(create()) object = nullptr;
    if (!m_session) {
        *status = kvx::kNoSession;
        return object;
    }
    const kvx::NetWatch watch = this->watch();
    object = create();
    if (object == nullptr) {
        const bool open = watch.queueStands() && m_session;
        const RvStatus reason = open ? m_session->status() : RvStatus(kSessionClosed);
        kvx::warn(reason.text() != nullptr ? reason.text() : "");
        *status = kvx::kNotCreated;
    }
    return object;
}

RvListener* CVekRvNet::createListenerHere(const char* subject, unsigned long timeout,
                                          const RvDataCallback* callback, void* closure) const {
    RvDataCallback* const target = forSession(callback);
    if (subject == nullptr && timeout == 0) return m_session->newInbox(target, closure);
    if (subject == nullptr) return m_session->newInbox(timeout, target, closure);
    if (timeout == 0) return m_session->newListener(subject, target, closure);
    return m_session->newListener(subject, timeout, target, closure);
}

RvIO* CVekRvNet::createIOHere(int* status, unsigned int socket, rvevm_IoEventType type,
                              RvIOCallback* callback, void* closure) {
    RvIO* const io = createHere(status, [&] {
        RvIO* const made = m_session->newIO(socket, type, callback, closure);
        if (made == nullptr) kvx::warn("Failed to monitor on fid : ", socket, "\n");
        return made;
    });
    if (io == nullptr) return nullptr;
    kvx::trace(kvx::kTraceCalls, "RRNNewIO() handler created for socket ", socket, "\n");
    *status = m_ioHandlers->RTLAdd(static_cast<int>(socket), static_cast<void*>(io));
    return io;
}

template <class Record>
bool CVekRvNet::pushRequest(const Record& request) {
    auto record = std::make_unique<Record>(request);
    ownTexts(*record);
    const CVekAutoMutex guard(m_requestMutex);
    // A stack: the last request is served first.
    if (!m_requests || m_requests->RSPushBottom(record.get()) != kvx::kOk) return false;
    static_cast<void>(record.release());
    m_askedQueue = m_ends->queue;
    return true;
}

template <class Object, class Record>
Object* CVekRvNet::requestObject(int* status, const Record& fields, const RequestLines& lines,
                                 const std::string& failure) {
    {
        const CVekAutoMutex guard(m_requestMutex);
        if (!m_answers) *status = kvx::kMissingArgument;
    }
    if (*status != kvx::kOk) {
        kvx::report(*status, rvNet::kFile, lines.noQueue,
                    "it seems that the main thread is not listening for new activity requests");
        return nullptr;
    }
    Object* object = nullptr;
    {
        const CVekAutoMutex oneAtATime(m_callerMutex);
        Record request = fields;
        request.m_threadId = static_cast<std::int32_t>(CVekThread::RTId());
        const bool pushed = pushRequest(request);
        if constexpr (std::is_same_v<Record, SVekRvQueueTimer>) {
            kvx::trace(kvx::kTraceCalls, "RRNNewTimer() sent packet wrt timer ", request.m_interval,
                       " now just need to wait on addition\n");
        }
        *status = kvx::kNoAnswer;
        if (pushed) object = claimAnswer<Object>(request.m_threadId, status);
    }
    if (*status == kvx::kNoAnswer) kvx::report(*status, rvNet::kFile, lines.timedOut);
    if (*status == kvx::kNotCreated) {
        kvx::report(*status, rvNet::kFile, lines.notMade, failure.c_str());
    }
    return object;
}

/// Removes and returns the answer.
template <class Object>
Object* CVekRvNet::claimAnswer(int threadId, int* status) {
    RRNWaitForNewActivity(threadId, status);
    const CVekAutoMutex guard(m_requestMutex);
    *status = kvx::kNoAnswer;
    if (m_ends->queue != m_askedQueue) return nullptr;  // it may have ended since the last poll
    Object* object = nullptr;
    if (const CVekPointer* const answer = m_answers->RTLGet(threadId)) {
        object = static_cast<Object*>(answer->RPData());
        *status = object != nullptr ? kvx::kOk : kvx::kNotCreated;
    }
    m_answers->RTLDelete(threadId);
    m_unclaimed.erase(threadId);
    return object;
}

CVekPointer* CVekRvNet::RRNWaitForNewActivity(int threadId, int* status) {
    *status = kvx::kNoAnswer;
    for (int poll = 0; poll < kAnswerPolls; ++poll) {
        {
            const CVekAutoMutex guard(m_requestMutex);
            if (m_ends->queue != m_askedQueue) return nullptr;  // no answer will come
            CVekPointer* const answer = m_answers->RTLGet(threadId);
            if (answer != nullptr) {
                *status = kvx::kOk;
                return answer;
            }
        }
        VekSleep(kAnswerPollInterval);
    }
    return nullptr;
}

RvIO* CVekRvNet::RRNNewIO(int* status, unsigned int socket, rvevm_IoEventType type,
                          RvIOCallback* callback, void* closure) {
    *status = kvx::kOk;
    if (RRNReturnCheckThreadId() == kvx::kOk) {
        return createIOHere(status, socket, type, callback, closure);
    }
    static constexpr RequestLines kLines = {rvNet::IoTimedOut, rvNet::IoNotMade, rvNet::IoNoQueue};
    RvIO* const io = requestObject<RvIO>(
        status, SVekRvQueueIO{VEK_QUEUE_IO, 0, socket, callback, type, closure}, kLines,
        "addition of a handler for socket " + std::to_string(socket) + " failed");
    if (io != nullptr) {
        kvx::trace(kvx::kTraceCalls, "RRNNewIO() handler created for socket ", socket, "\n");
    }
    return io;
}

RvSender* CVekRvNet::RRNNewSender(int* status, const char* subject, const char* replySubject) {
    *status = kvx::kOk;
    static constexpr RequestLines kLines = {rvNet::SenderTimedOut, rvNet::SenderNotMade,
                                            rvNet::SenderNoQueue};
    RvSender* const sender =
        RRNReturnCheckThreadId() == kvx::kOk
            ? createHere(status, [&] { return m_session->newSender(subject, replySubject); })
            : requestObject<RvSender>(
                  status, SVekRvQueueSender{VEK_QUEUE_SENDER, 0, subject, replySubject}, kLines,
                  std::string("addition of a sender for subject ") + kvx::textOrNull(subject) +
                      " failed");
    if (sender != nullptr) {
        kvx::trace(kvx::kTraceCalls, "RRNNewSender() handler created for subject ",
                   kvx::textOrNull(subject), "\n");
    }
    return sender;
}

RvListener* CVekRvNet::RRNNewListener(int* status, const RvDataCallback* callback, void* closure) {
    return RRNNewListener(status, nullptr, 0UL, callback, closure);
}

RvListener* CVekRvNet::RRNNewListener(int* status, const char* subject,
                                      const RvDataCallback* callback, void* closure) {
    return RRNNewListener(status, subject, 0UL, callback, closure);
}

RvListener* CVekRvNet::RRNNewListener(int* status, unsigned long timeout,
                                      const RvDataCallback* callback, void* closure) {
    return RRNNewListener(status, nullptr, timeout, callback, closure);
}

RvListener* CVekRvNet::RRNNewListener(int* status, const char* subject, unsigned long timeout,
                                      const RvDataCallback* callback, void* closure) {
    *status = kvx::kOk;
    static constexpr RequestLines kLines = {rvNet::ListenerTimedOut, rvNet::ListenerNotMade,
                                            rvNet::ListenerNoQueue};
    RvListener* const listener =
        RRNReturnCheckThreadId() == kvx::kOk
            ? createHere(status,
                         [&] { return createListenerHere(subject, timeout, callback, closure); })
            : requestObject<RvListener>(
                  status,
                  SVekRvQueueListener{VEK_QUEUE_LISTENER, 0, subject, timeout, callback, closure},
                  kLines,
                  "addition of a listener for subject/timeout " + listenerName(subject, timeout) +
                      " failed");
    if (listener != nullptr) {
        kvx::trace(kvx::kTraceCalls, "RRNNewListener() handler created for subject/timeout ",
                   listenerName(subject, timeout), "\n");
    }
    return listener;
}

RvTimer* CVekRvNet::RRNNewTimer(int* status, unsigned long interval,
                                const RvTimerCallback* callback, void* closure) {
    return RRNNewTimer(status, interval, rv_FALSE, callback, closure);
}

RvTimer* CVekRvNet::RRNNewTimer(int* status, unsigned long interval, rv_Boolean repeat,
                                const RvTimerCallback* callback, void* closure) {
    *status = kvx::kOk;
    static constexpr RequestLines kLines = {rvNet::TimerTimedOut, rvNet::TimerNotMade,
                                            rvNet::TimerNoQueue};
    RvTimer* const timer =
        RRNReturnCheckThreadId() == kvx::kOk
            ? createHere(status,
                         [&] {
                             return m_session->newTimer(interval, repeat, forSession(callback),
                                                        closure);
                         })
            : requestObject<RvTimer>(
                  status, SVekRvQueueTimer{VEK_QUEUE_TIMER, 0, interval, repeat, callback, closure},
                  kLines,
                  "addition of a timer of interval " + std::to_string(interval) + " failed");
    if (timer != nullptr) {
        kvx::trace(kvx::kTraceCalls, "RRNNewTimer() handler created for timer of interval ",
                   interval, "\n");
    }
    return timer;
}
