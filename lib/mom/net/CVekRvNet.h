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

/// The network object of the bus: the session, everything made from it, and the main loop.
///
/// The thread that constructs the net is its *main thread*. It alone touches the bus; other threads
/// get senders, listeners, timers and I/O handlers through requests that the main thread serves
/// every 100 ms while it runs `RRNDoIt`. The registries own what they hold: termination deletes it,
/// the remove operations delete what they remove, the dereference operations only forget it.
///
/// Results are 1 for success and a negative code otherwise; pointer results are null on failure.
/// Several nets may live on one thread: they share its event manager, so the loop of one serves
/// all. Nets of two threads may not live at once. Other threads must have left the net before it is
/// terminated or destroyed.
///
/// **User code and locks.** User code is what the net calls or makes the bus call: callbacks for
/// data, time and I/O, advisories (which a send, a listen or a removal may deliver at once), hooks
/// and filters, `RRNPostInitFns`, the handler of `CVekError::SetHandler`, and the destructors of
/// callbacks that the net owns (where the net is being destroyed, those must not call what a
/// derived class adds). All but the error handler runs on the main thread. It may call every
/// operation, also the one that is under way; remove or dereference what is calling it; stop the
/// loop; end the session; and destroy the net. Only an error handler may not destroy the net or
/// initialise it again, since what it was called from goes on.
///
/// | lock | held while user code runs | what that code must not do |
/// |---|---|---|
/// | the net's lock `m_lock`, recursive | by a send, on the main thread | wait for another thread
/// that stores, removes or dereferences, or that reads or sets what the lock guards | |
/// `m_callerMutex` | never | | | `m_requestMutex` | never | |
///
/// Queueing a send (`CVekEngine`) takes `m_requestMutex` alone and never waits for a send. A
/// request of another thread waits for the main loop, so nothing on the main thread may wait for
/// its thread. A stream buffer under `std::cout` or `std::cerr` may be called under any lock and
/// must not call the net. `m_callerMutex` is taken before `m_requestMutex`; neither is taken
/// together with `m_lock`.
class KVX_API CVekRvNet : public CVekNet {
  public:
    /// Opens the session at once. A failure is reported and leaves `m_sessionUp` 0 (and mostly
    /// `m_session` null); the object stays usable, its operations then return -220544.
    CVekRvNet();
    CVekRvNet(unsigned long latency, char* domain);
    CVekRvNet(unsigned long latency, const char* domain);

    /// What `address` leaves empty is taken from the configuration file.
    CVekRvNet(unsigned long latency, const char* domain, kvx::DaemonAddress address);
    ~CVekRvNet() override;

    /// Called by the main loop instead of the bus loop when there is no session. Does nothing.
    virtual void RRNStartNet();

    /// The start-up hook: runs on the main thread, 3 ms after each entry into the main loop.
    virtual void RRNPostInitFns() = 0;

    /// Sets what `RRNPostInitFns` of a `CVekClient` or a `CVekEngine` calls; empty for nothing.
    /// Main thread.
    void RRNSetPostInitFns(std::function<void()> fns);

    // --- Session -------------------------------------------------------------------------------

    /// Reads the daemon configuration, opens the session, builds the registries and the request
    /// queue, and listens for the bus's advisories. The calling thread becomes the main thread.
    /// -220544 when the bus cannot be reached, -220542 without the listener, -220425 (reported)
    /// while a net of another thread has a session: the process has one event manager.
    int RRNInitSession();

    /// Closes the session and deletes everything that the registries hold. Main thread; elsewhere
    /// reports -220425 and goes on. Always 1; a second call changes nothing.
    int RRNTerminateSession();

    /// The address of the bus: what the constructor was given, else what the configuration file
    /// says, with "tcp:7500" for the daemon when neither names one.
    kvx::DaemonAddress RRNAddress();

    /// Starts the bus agent "rva", which gets the net's own address of the bus. Always 1; a failure
    /// is reported with -220439.
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

    // --- Subjects, services and sending --------------------------------------------------------

    /// `subject`, a full stop and the domain; without a domain, or with an empty one, a copy of
    /// `subject`. The caller frees the result with `free`. Null is reported with -220552 and gives
    /// null.
    char* RRNDomainSubj(const char* subject);

    /// Listens on `subject` qualified with the domain. `callback` must outlive the listener or be
    /// destroyed before the next message; the net is the closure. Any thread. -220552 when no
    /// subject could be built, else as `RRNAddExService`.
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
    /// without a session, -220545 when the bus refused, or when user code that the send ran has
    /// ended the session.
    int RRNSend(const char* subject, RvDatum& datum);

    /// Publishes `datum` as a request whose reply goes to `callback`, with the latency as time-out
    /// and the net as closure. -220544 also when user code that the send ran has ended the session.
    /// The reply listener is registered and lives until it is removed, also after a time-out: a
    /// callback that has all it wants, or gives up, calls `RRNRemoveListener(listener->subject())`.
    /// One whose callback has been destroyed is removed by later requests.
    int RRNSend(const char* subject, RvDatum& datum, RvDataCallback* callback);

    /// Publishes `datum` on exactly `subject`. Returns the sender, which the registry owns, or
    /// null; null also when user code that the send ran has taken the sender out of the registry. A
    /// sender to an inbox lives until 4,096 later ones were made. Main thread.
    RvSender* RRNSendOnSubject(char* subject, RvDatum& datum);

    // --- Timers, I/O and registries ------------------------------------------------------------

    /// Watches `socket`. Whichever flag is set, the handler watches for readability; a second flag
    /// is reported with -220462. Any thread.
    int RRNAddIOHandle(unsigned int socket, __boolean read, __boolean write, __boolean exception,
                       RvIOCallback* callback);

    /// Deletes the handler of `socket`. An unknown socket changes nothing. Main thread.
    int RRNRemoveIO(unsigned int socket);

    /// A one-shot or a repeating timer of `interval` ms with the net as closure, kept in the
    /// registry. Any thread. -220544 without a session, -220552 when no timer was made. A one-shot
    /// timer that has fired stays until it is removed; whoever makes many calls
    /// `RRNRemoveTimer(timer)` in the callback.
    int RRNAddTimer(int interval, RvTimerCallback* callback);
    int RRNAddRepeatTimer(int interval, RvTimerCallback* callback);

    /// Deletes a timer of the registry, in constant time; also inside its own callback. Main
    /// thread, unchecked. -220402 for null, -220547 for a timer that is not registered.
    int RRNRemoveTimer(RvTimer* timer);

    /// Gives `listener` to the registry. -220552 for null, -220566 when it is there already,
    /// -220544 without a session; the caller keeps it then.
    int RRNStoreListener(RvListener* listener);

    /// Takes `listener` out of the registry; the caller owns it from then on. -220402 for null.
    int RRNDereferenceListener(RvListener* listener);

    /// Deletes all listeners on exactly `subject` (domain included). Main thread, unchecked.
    /// -220402 for null; 1 when there was none.
    int RRNRemoveListener(const char* subject);

    /// Takes `sender` out of the registry; the caller owns it from then on. -220402 for null.
    int RRNDereferenceSender(RvSender* sender);

    /// Adds the one-shot timer of 3 ms that calls the start-up hook. The net removes it when it has
    /// fired.
    int RRNAddPostInitTimer();

    // --- Creating bus objects from any thread ----------------------------------------------------
    //
    // Each sets `*status` to 1 or to the reason of a null result: -220370 not made, -220371 no
    // answer (at once when the session ends meanwhile), -220402 nobody listens for requests. The
    // caller owns the object (an I/O handler is registered with the net). Callbacks are kept, never
    // copied: after -220371 the request may still be served, so its callback and closure must live
    // until the session ends. The net must have a session.

    /// The net owns the handler. On the main thread -220566 comes with one that the caller owns:
    /// its socket has another one registered.
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

    /// Tells later what user code has left of this net; see `kvx::NetWatch`. Main thread.
    [[nodiscard]] kvx::NetWatch watch() const { return kvx::NetWatch(m_ends); }

  protected:
    /// Calls what `RRNSetPostInitFns` has set. It may destroy the net.
    void runPostInitFns() const;

    /// Reports -220425 when called off the main thread.
    void RRNCheckThreadId();

    /// 1 on the main thread, else -220425.
    int RRNReturnCheckThreadId();

    /// Keeps the senders to inboxes from piling up: call it, with the net's lock held, for every
    /// sender entered in `m_senders`. Past 4,096 inbox senders the oldest one is deleted that no
    /// call is sending on.
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

    /// A token of the right to the shared event manager, or null after a report that another
    /// thread has it.
    std::shared_ptr<const void> claimLoop(const char* file, int line);

  private:
    friend class CVekRvQueueHandler;
    friend class CVekSendQueueItem;
    struct RequestLines;
    struct Storage;
    /// Deletes a timer, and with it a callback that waits for it and that nobody owns.
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
    // Main thread only. The session is deleted before the objects that were made from it; they
    // stay valid as objects.
    std::unique_ptr<RvSession> m_session;
    const kvx::DaemonAddress m_givenAddress;
    CVekRvdCfgParser m_cfgParser;  // the configuration file, and the given address over it
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
    std::unique_ptr<CVekTreeList> m_answers;  // by the id of the thread that asked

    // Main thread only.
    std::unique_ptr<RvTimer> m_queueTimer;
    std::unique_ptr<CVekRvQueueHandler> m_queueHandler;

  private:
    // Guarded by m_requestMutex: answers that nobody has taken yet, but for I/O handlers, which are
    // the net's.
    std::map<int, RvSessionObject*> m_unclaimed;
    std::uint64_t m_askedQueue = 0;  // the queue, counted, in which the present request stands

    // Guarded by m_lock: subjects of registered senders to inboxes, oldest first; the senders that
    // a call is sending on; subjects of reply listeners; where each timer stands in `m_timers`; the
    // one-shot timers that the library made for itself; handlers of a socket that had one already,
    // which no registry takes.
    std::deque<std::string> m_inboxSenders;
    std::vector<const RvSender*> m_sendersInUse;
    std::deque<std::string> m_replies;
    std::unordered_map<const RvTimer*, CVekListable*> m_timerPlaces;
    std::vector<RvTimer*> m_ownTimers;
    std::vector<std::unique_ptr<RvIO>> m_strayHandlers;

    // Main thread only: what the registries gave up without deleting it.
    std::vector<std::unique_ptr<CVekStack>> m_retiredStacks;
    std::vector<OwnedTimer> m_retiredTimers;
    std::function<void()> m_postInitFns;
    std::shared_ptr<kvx::NetEnds> m_ends = std::make_shared<kvx::NetEnds>();
    std::shared_ptr<const void> m_loopClaim;
};
