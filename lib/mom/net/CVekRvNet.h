#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "foundation/foundation.h"
#include "mom/config/CVekRvdCfgParser.h"
#include "mom/config/DaemonAddress.h"
#include "mom/net/CVekNet.h"
#include "mom/net/CVekRvErrorClb.h"
#include "mom/net/CVekRvQueueHandler.h"
#include "mom/net/NetWatch.h"
#include "platform/Export.h"
#include "rv/rv.h"

namespace kvx {
class LoopPosts;
}  // namespace kvx

/// The network object of the bus: the session, everything made from it, and the main loop.
///
/// The thread that constructs the net is its *main thread*. Only it uses the bus; other threads get
/// senders, listeners, timers and I/O handlers through requests that the main thread serves every
/// 100 ms while it runs `RRNDoIt`. The registries own what they hold: termination deletes it, the
/// remove operations delete what they remove, the dereference operations release it to the caller.
///
/// Results are 1 for success and a negative code otherwise; pointer results are null on failure.
/// Several nets may exist on one thread: they share its event manager, so the loop of one serves
/// all. Nets of two threads must not exist at once. Other threads must have left the net before it
/// is terminated or destroyed.
///
/// **User code and locks.** User code is called by the net or by the bus on its behalf: callbacks
/// for data, time and I/O, advisories (which a send, a listen or a removal may deliver at once),
/// hooks and filters, `RRNPostInitFns`, the handler of `CVekError::SetHandler`, and the destructors
/// of callbacks that the net owns (while the net is being destroyed, those must not call members of
/// a derived class). All but the error handler runs on the main thread. It may call every
/// operation, also the one in progress; remove or dereference the object that calls it; stop the
/// loop; end the session; and destroy the net. Only an error handler must not destroy the net or
/// initialise it again, since its caller goes on.
///
/// Of the net's locks only `m_lock`, which is recursive, is held while user code runs: by a send,
/// on the main thread. That code must not wait for another thread that stores, removes or
/// dereferences, or that reads or sets what the lock guards.
///
/// Queueing a send (`CVekEngine`) takes only `m_requestMutex` and never waits for a send. A request
/// of another thread waits for the main loop, so the main thread must not wait for that thread. A
/// stream buffer of `std::cout` or `std::cerr` may be called under any lock and must not call the
/// net. `m_callerMutex` is taken before `m_requestMutex`; neither is taken together with `m_lock`.
class KVX_API CVekRvNet : public CVekNet {
  public:
    /// Opens the session at once. A failure is reported and leaves `m_sessionUp` 0 (and usually
    /// `m_session` null); operations then return -220544.
    CVekRvNet();
    CVekRvNet(unsigned long latency, char* domain);
    CVekRvNet(unsigned long latency, const char* domain);

    /// Empty texts of `address` are taken from the configuration file.
    CVekRvNet(unsigned long latency, const char* domain, kvx::DaemonAddress address);
    ~CVekRvNet() override;

    /// Called by the main loop instead of the bus loop when there is no session. Does nothing.
    virtual void RRNStartNet();

    /// The start-up hook: runs on the main thread, 3 ms after each entry into the main loop.
    virtual void RRNPostInitFns() = 0;

    /// Sets the function that `RRNPostInitFns` of a `CVekClient` or a `CVekEngine` calls; empty for
    /// none. Main thread.
    void RRNSetPostInitFns(std::function<void()> fns);

    // --- Session -------------------------------------------------------------------------------

    /// Reads the daemon configuration, opens the session, builds the registries and the request
    /// queue, and listens for the bus's advisories. The calling thread becomes the main thread.
    /// -220544 when the bus cannot be reached, -220542 without the listener, -220425 (reported)
    /// while a net of another thread has a session: the process has one event manager.
    int RRNInitSession();

    /// Closes the session and deletes everything that the registries hold. Main thread; on another
    /// thread reports -220425 and proceeds. Always 1; a second call changes nothing.
    int RRNTerminateSession();

    /// The address of the bus: the constructor's, else the configuration file's, with "tcp:7500"
    /// for the daemon when neither names one.
    kvx::DaemonAddress RRNAddress();

    /// Starts the bus agent "rva" with the net's address of the bus. Always 1; reports -220439 on
    /// failure.
    int RRNStartAgent();

    /// Stops the agent that `RRNStartAgent` started. Always 1.
    int RRNStopAgent();

    /// Empties and recreates the registries. Always 1. Timers of the old list stay alive, and fire,
    /// until the net is destroyed.
    int RRNOpenStorage();

    /// The main loop: adds the timer of the start-up hook and dispatches timers, I/O and messages
    /// until `RRNStopLoop`. Returns at once before a successful initialisation.
    void RRNDoIt();

    /// Leaves the main loop. Main thread, also inside a callback.
    void RRNStopLoop();

    /// Lets `RRNPost` wake the main loop, until the session ends. -220440 when the system has no
    /// sockets left, -220544 without a session, -220370 when it refuses. Main thread.
    int RRNAllowPosts();

    /// Calls `work` on the main thread at the next turn of the main loop, in the order of posting;
    /// what it posts itself waits for the turn after. It may do everything, and destroy the net;
    /// what still waits when the session ends is dropped. -220544 before `RRNAllowPosts` and
    /// without a session. Any thread.
    int RRNPost(std::function<void()> work);

    // --- Subjects, services and sending --------------------------------------------------------

    /// `subject`, a full stop and the domain; without a domain, or with an empty one, a copy of
    /// `subject`. The caller frees the result with `free`. Null is reported with -220552 and gives
    /// null.
    char* RRNDomainSubj(const char* subject);

    /// Listens on `subject` qualified with the domain. `callback` is not owned, and not called
    /// after its destruction; the net is the closure. Any thread. -220552 when no subject could be
    /// built, else as `RRNAddExService`.
    int RRNAddService(const char* subject, RvDataCallback* callback);

    /// Listens on exactly `subject`. Any thread. -220544 without a session, -220552 for a null
    /// subject, -220542 when no listener could be made.
    int RRNAddExService(const char* subject, RvDataCallback* callback);

    /// `RRNAddService`; on success takes ownership of `callback` and deletes it at termination.
    int RRNTakeService(const char* subject, RvDataCallback* callback);

    /// Listens for the bus's advisories, "_RV.>", on the net's own session or on `session`.
    /// Main thread, unchecked. -220544 when the net has no session, -220542 without a listener.
    int RRNAddErrorService(RvDataCallback* callback);
    int RRNAddErrorService(RvSession* session, RvDataCallback* callback);

    /// Publishes `datum` on `subject` qualified with the domain. Main thread (-220425). -220544
    /// without a session, -220545 when the bus refused, or when user code run by the send ended the
    /// session.
    int RRNSend(const char* subject, RvDatum& datum);

    /// Publishes `datum` as a request whose reply goes to `callback`, with the latency as time-out
    /// and the net as closure. -220544 also when user code run by the send ended the session. The
    /// reply listener is registered until it is removed, also after a time-out: after the last
    /// reply the callback calls `RRNRemoveListener(listener->subject())`. Later requests remove
    /// reply listeners whose callback was destroyed.
    int RRNSend(const char* subject, RvDatum& datum, RvDataCallback* callback);

    /// Publishes `datum` on exactly `subject`. Returns the sender, which the registry owns, or
    /// null; null also when user code run by the send removed the sender from the registry. A
    /// sender to an inbox is deleted after 4,096 later ones were made. Main thread.
    RvSender* RRNSendOnSubject(char* subject, RvDatum& datum);

    // --- Timers, I/O and registries ------------------------------------------------------------

    /// Watches `socket`. The handler always watches for readability, whichever flag is set; a
    /// second flag is reported with -220462. Any thread.
    int RRNAddIOHandle(unsigned int socket, __boolean read, __boolean write, __boolean exception,
                       RvIOCallback* callback);

    /// Deletes the handler of `socket`. An unknown socket changes nothing. Main thread.
    int RRNRemoveIO(unsigned int socket);

    /// A one-shot or a repeating timer of `interval` ms with the net as closure, kept in the
    /// registry. Any thread. -220544 without a session, -220552 when no timer was made. A one-shot
    /// timer that has fired stays until it is removed: call `RRNRemoveTimer(timer)` in the callback
    /// when making many.
    int RRNAddTimer(int interval, RvTimerCallback* callback);
    int RRNAddRepeatTimer(int interval, RvTimerCallback* callback);

    /// Deletes a timer of the registry, in constant time; also inside its own callback. Main
    /// thread, unchecked. -220402 for null, -220547 for a timer that is not registered.
    int RRNRemoveTimer(RvTimer* timer);

    /// Gives `listener` to the registry. -220552 for null, -220566 when it is registered already,
    /// -220544 without a session; on failure the caller keeps it.
    int RRNStoreListener(RvListener* listener);

    /// Removes `listener` from the registry; the caller owns it. -220402 for null.
    int RRNDereferenceListener(RvListener* listener);

    /// Deletes all listeners on exactly `subject` (domain included). Main thread, unchecked.
    /// -220402 for null; 1 when there was none.
    int RRNRemoveListener(const char* subject);

    /// Removes `sender` from the registry; the caller owns it. -220402 for null.
    int RRNDereferenceSender(RvSender* sender);

    /// Adds the one-shot timer of 3 ms that calls the start-up hook. The net removes it after it
    /// has fired.
    int RRNAddPostInitTimer();

    // --- Creating bus objects from any thread ----------------------------------------------------
    //
    // Each sets `*status` to 1 or to the reason of a null result: -220370 not made, -220371 no
    // answer (at once when the session ends meanwhile), -220402 no request queue. The caller owns
    // the object (an I/O handler is registered with the net). Callbacks are referenced, never
    // copied: after -220371 the request may still be served, so its callback and closure must live
    // until the session ends. The net must have a session.

    /// The net owns the handler. On the main thread -220566, for a socket with a registered
    /// handler, comes with a new handler that the caller owns.
    RvIO* RRNNewIO(int* status, unsigned int socket, rvevm_IoEventType type, RvIOCallback* callback,
                   void* closure);
    RvSender* RRNNewSender(int* status, const char* subject, const char* replySubject);

    /// Without a subject the listener is an inbox. `timeout` in milliseconds; 0 means none.
    RvListener* RRNNewListener(int* status, const RvDataCallback* callback, void* closure);
    RvListener* RRNNewListener(int* status, const char* subject, const RvDataCallback* callback,
                               void* closure);
    RvListener* RRNNewListener(int* status, unsigned long timeout, const RvDataCallback* callback,
                               void* closure);
    RvListener* RRNNewListener(int* status, const char* subject, unsigned long timeout,
                               const RvDataCallback* callback, void* closure);

    /// `interval` in milliseconds.
    RvTimer* RRNNewTimer(int* status, unsigned long interval, const RvTimerCallback* callback,
                         void* closure);
    RvTimer* RRNNewTimer(int* status, unsigned long interval, rv_Boolean repeat,
                         const RvTimerCallback* callback, void* closure);

    /// Returns a watch on this net; see `kvx::NetWatch`. Main thread.
    [[nodiscard]] kvx::NetWatch watch() const { return kvx::NetWatch(m_ends); }

  protected:
    /// Calls the function set by `RRNSetPostInitFns`, which may destroy the net.
    void runPostInitFns() const;

    /// Reports -220425 when called off the main thread.
    void RRNCheckThreadId();

    /// 1 on the main thread, else -220425.
    int RRNReturnCheckThreadId();

    /// Bounds the number of senders to inboxes: call it, with the net's lock held, for every sender
    /// entered in `m_senders`. Above 4,096 inbox senders it deletes the oldest one that is not in
    /// use by a send.
    void noteSender(const char* subject);

    /// Keeps a registered sender from being deleted by `noteSender` while it sends.
    class SenderUse {
      public:
        SenderUse(CVekRvNet& net, const RvSender* sender);
        ~SenderUse();
        SenderUse(const SenderUse&) = delete;
        SenderUse& operator=(const SenderUse&) = delete;

      private:
        CVekRvNet& m_net;
        const RvSender* m_sender;
        kvx::NetWatch m_watch;
    };

    /// The sender registered under `subject`, which may be null. With the net's lock held.
    RvSender* registeredSender(const char* subject) const;

    /// Claims the shared event manager; null after a report when another thread holds it.
    std::shared_ptr<const void> claimLoop(const char* file, int line);

  private:
    friend class CVekRvQueueHandler;
    friend class CVekSendQueueItem;
    struct RequestLines;
    struct Storage;
    /// Deletes a timer, and its callback if that is a `DiesWithTimer` that has not run.
    struct TimerDeleter {
        void operator()(RvTimer* timer) const;
    };
    using OwnedTimer = std::unique_ptr<RvTimer, TimerDeleter>;

    int RRNCreateQueueListener();
    CVekPointer* RRNWaitForNewActivity(int threadId, int* status);

    void start(int line);
    void ensureDomain();
    int startSession();
    int openCoreSession();
    int listenForAdvisories();
    void takeRequestQueue(Storage& dropped);
    void takeRegistries(Storage& dropped);
    void retireTimers();

    template <class Object, class Record>
    Object* requestObject(int* status, const Record& fields, const RequestLines& lines,
                          const std::string& failure);
    template <class Record>
    bool pushRequest(const Record& request);
    template <class Object>
    Object* claimAnswer(int threadId, int* status);
    template <class Create>
    auto createHere(int* status, Create create);
    RvListener* createListenerHere(const char* subject, unsigned long timeout,
                                   const RvDataCallback* callback, void* closure) const;
    RvIO* createIOHere(int* status, unsigned int socket, rvevm_IoEventType type,
                       RvIOCallback* callback, void* closure);

    void keepStray(RvIO* io, int status);
    RvSender* senderForRequest(const char* subject, int* status);
    RvSender* sendOnNewSender(const char* subject, RvDatum& datum);
    int storeListener(RvListener* listener);
    int storeReply(RvListener* reply);
    int addTimer(int interval, rv_Boolean repeat, RvTimerCallback* callback);
    void sweepSpentTimers();

  public:
    // Main thread only. The session is deleted before the objects made from it, which stay valid.
    std::unique_ptr<RvSession> m_session;
    const kvx::DaemonAddress m_givenAddress;
    CVekRvdCfgParser m_cfgParser;  // the configuration file, overridden by the given address
    CVekProcessHandle m_agentHandle;
    bool m_agentStarted = false;
    std::unique_ptr<CVekProcessMgr> m_processMgr;

    /// 1 from a successful initialisation to termination. Written under m_lock at termination.
    int m_sessionUp = 0;
    unsigned int m_mainThreadId = 0;

    // Guarded by m_lock. Each entry is a `CVekPointer` to an object that the registry owns.
    std::unique_ptr<CVekTreeList> m_senders;     // by subject; the pointee may be null
    std::unique_ptr<CVekTreeList> m_ioHandlers;  // by socket
    std::unique_ptr<CVekTreeList> m_listeners;   // by subject, several per subject
    std::unique_ptr<CVekDoubleList> m_timers;

    /// Guards the requests, the answers and an engine's send queue.
    CVekMutex m_requestMutex;
    /// Held by another thread for the whole of one request; taken before m_requestMutex.
    CVekMutex m_callerMutex;

    std::unique_ptr<CVekStack> m_takenCallbacks;      // guarded by m_lock
    std::unique_ptr<CVekRvErrorClb> m_errorCallback;  // main thread only

    // Guarded by m_requestMutex.
    std::unique_ptr<CVekStack> m_requests;
    std::unique_ptr<CVekTreeList> m_answers;  // by the id of the requesting thread

    // Main thread only.
    std::unique_ptr<RvTimer> m_queueTimer;
    std::unique_ptr<CVekRvQueueHandler> m_queueHandler;

  private:
    std::shared_ptr<kvx::LoopPosts> m_posts;  // guarded by m_requestMutex

    // Guarded by m_requestMutex: answers not taken yet, except I/O handlers, which the net owns.
    std::map<int, RvSessionObject*> m_unclaimed;
    std::uint64_t m_askedQueue = 0;  // the generation of the queue that holds the current request

    // Guarded by m_lock: subjects of registered senders to inboxes, oldest first; the senders in
    // use by a send; subjects of reply listeners; the position of each timer in `m_timers`; the
    // library's own one-shot timers; handlers of a socket with a registered one, which no registry
    // takes.
    std::deque<std::string> m_inboxSenders;
    std::vector<const RvSender*> m_sendersInUse;
    std::deque<std::string> m_replies;
    std::unordered_map<const RvTimer*, CVekListable*> m_timerPlaces;
    std::vector<RvTimer*> m_ownTimers;
    std::vector<std::unique_ptr<RvIO>> m_strayHandlers;

    // Main thread only: objects that the registries dropped without deleting them.
    std::vector<std::unique_ptr<CVekStack>> m_retiredStacks;
    std::vector<OwnedTimer> m_retiredTimers;
    std::function<void()> m_postInitFns;
    std::shared_ptr<kvx::NetEnds> m_ends = std::make_shared<kvx::NetEnds>();
    std::shared_ptr<const void> m_loopClaim;
};
