#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "foundation/foundation.h"
#include "mom/engine/CVekHeartbeatClb.h"
#include "mom/engine/CVekSendQueueItem.h"
#include "mom/engine/CVekServiceToSubjectMapper.h"
#include "mom/net/CVekRvErrorClb.h"
#include "mom/net/CVekRvNet.h"
#include "platform/Export.h"
#include "rv/ft/rvft.h"
#include "rv/rv.h"

/// The network object of a full service process.
///
/// It adds to the net a send queue, which the main thread drains at a bounded rate, an identity,
/// the membership of a fault-tolerance group on a second session, and heartbeats. Any thread may
/// send: a send off the main thread is queued. A `domainQualify` of `TRUE` appends the domain to
/// the subject.
class KVX_API CVekEngine : public CVekRvNet {
  public:
    /// Copies both texts. `serviceType` `SERV_UNKNOWN` joins no group. A null group base makes
    /// `REInitSession` fail, which is reported; the object is constructed either way.
    CVekEngine(int tierNo, const char* groupBase, const char* domain, __serv_types serviceType);

    /// The same; empty texts of `address` are taken from the configuration file. Applies to both
    /// sessions.
    CVekEngine(int tierNo, const char* groupBase, const char* domain, __serv_types serviceType,
               const kvx::DaemonAddress& address);

    /// Takes ownership of both texts, which must come from `malloc`.
    CVekEngine(int tierNo, char* groupBase, char* domain, __serv_types serviceType);

    /// Leaves the group, and deletes the queued items without sending them: who wants them sent
    /// ends the main loop only when `RESendQueueLength` is 0. Main thread.
    ~CVekEngine() override;

    /// Arms the queue timer and runs the main loop; returns when the loop ends, at once inside it.
    /// The number of items per tick is a tenth of the current send rate, at least 1.
    void REDoIt();

    /// Calls the function set by `RRNSetPostInitFns`; a derived engine does its start-up work here.
    void RRNPostInitFns() override;

    // --- Sending -------------------------------------------------------------------------------

    /// Publishes a datum. Off the main thread it reports -220425 and queues a copy, whose subject
    /// is qualified once more than requested, so that receivers of `subject` miss it: other threads
    /// call `REAddToSendQueue`. Returns 1, -220552 without a subject, -220544 without
    /// a session, -220545 when the bus refused. User code run by the send may end the session or
    /// destroy the engine; the result is that of the send.
    int RESend(const char* subject, const RvDatum& datum, __boolean domainQualify);

    /// Sends a request, with the engine as the callback's closure. The caller owns the reply
    /// listener. `timeout` in milliseconds; the short form qualifies the subject and waits for the
    /// latency. Off the main thread it reports -220425, queues a copy (qualified once more, with
    /// the latency as time-out) and returns null. A listener whose session was ended by user code
    /// meanwhile receives nothing.
    RvListener* RESend(const char* subject, const RvDatum& datum, const RvDataCallback* callback);
    RvListener* RESend(const char* subject, const RvDatum& datum, const RvDataCallback* callback,
                       unsigned long timeout, __boolean domainQualify);

    /// Queues a send at the back. Takes ownership of `datum`, also on failure; `callback`, when not
    /// null, makes it a request and must live until the reply. The short form waits for the
    /// latency. Any thread; never waits for a send. When a request is sent, its reply listener is
    /// entered in the net's registry; as with `CVekRvNet::RRNSend`, the callback removes it with
    /// `engine.RRNRemoveListener(listener->subject())` after the last reply or the time-out.
    /// Returns 1, -220552 for a null subject, -220553 without memory.
    int REAddToSendQueue(const char* subject, RvDatum* datum, const RvDataCallback* callback,
                         __boolean domainQualify);
    int REAddToSendQueue(const char* subject, RvDatum* datum, const RvDataCallback* callback,
                         unsigned long timeout, __boolean domainQualify);

    /// Queues a send at the front.
    int REAddToSendQueueFront(const char* subject, RvDatum* datum, const RvDataCallback* callback,
                              __boolean domainQualify);

    /// Removes and returns the next item, which the caller owns. When the queue is empty, on the
    /// main thread the next one of the send source, if there is one; else null.
    CVekSendQueueItem* RENextSendItem();

    /// Sets what gives further items when the queue is empty, or null when it has none now; empty
    /// for none. Called on the main thread without a lock; it must not throw. For senders that keep
    /// their own order, or their own bounds. Main thread.
    void RESetSendSource(std::function<std::unique_ptr<CVekSendQueueItem>()> next);

    /// Says that the source has something again: with prompt sending it is asked at once, else at
    /// the next tick. Any thread.
    void REWakeSendSource();

    /// Does `work`, which queues or wakes the source, and then, with prompt sending, sends without
    /// another turn of the loop. What a send causes may end the session or destroy the engine.
    /// Main thread.
    void REDoAndSend(const std::function<void()>& work);

    /// The number of queued items.
    int RESendQueueLength();

    /// Maximum of queued sends per second, 150 until it is set, before `REDoIt`, which reads it
    /// when it starts: one item is one packet, so an answer of a million rows sends 10,000 of them.
    /// The queue itself has no bound: who queues faster than this looks at `RESendQueueLength`.
    void RESetMaxSendRate(unsigned long rate);
    unsigned long REGetMaxSendRate();

    /// From now on queueing a send wakes the main loop, which sends it at once instead of at the
    /// next tick. In the time of a tick at most one tick's share of the send rate is sent in all;
    /// the rest waits for the next tick. Lasts until the session ends. -220440 when the loop cannot
    /// be woken, else as `RRNAllowPosts`; after a failure the tick sends everything. Main thread.
    int RESendPromptly();

    /// The members, unguarded; the engine owns both.
    RvTimer* REGetQueueTimer();
    CVekStack* REGetQueue();

    // --- Identity and fault tolerance ------------------------------------------------------------

    /// Opens the engine's own session and joins the group. Returns 1, -220552 without a group base,
    /// or -220425 as `RRNInitSession` does; other failures are written to standard error only. A
    /// second call leaves the group first, which makes the engine backup until the group activates
    /// it; -220544 when user code that this runs ends the net's session. Main thread.
    int REInitSession();

    /// Leaves the group and closes its session: another member takes over at once, and this engine
    /// becomes backup. `REInitSession` joins again. -220425 off the main thread, else 1.
    int RELeaveGroup();

    /// Builds the group's name from base, domain and tier. -220552 without a base.
    int REMakeGroupName();

    /// Builds the identity: host name up to its first full stop, a colon, the process id. -220463
    /// when the host has no name.
    int RESetEngineID();

    /// The identity; the engine owns the text.
    char* REGetEngineID();

    int REGetTierNo();
    void RESetTierNo(int tierNo);  // does not rename the group
    __boolean REIsReady();
    void REReady(__boolean ready);
    __boolean REIsLeader();
    void RESetHighestTier(__boolean leader);
    __boolean REIsConsumer();
    void RESetConsumer(__boolean consumer);

    /// Whether this engine is the primary of its group. For up to 4.8 s after the start of a group
    /// or the kill of its primary no member is: what then happens, a change or a question, each
    /// member has to keep until it is the primary or hears that another has dealt with it. Any
    /// thread.
    __boolean REIsActive();

    /// Whether a primary may still act as one, as `rvft_IsFresh`: `FALSE` after a stop of the
    /// process or a block of its loop that was long enough for another to take over, until the
    /// engine has heard its group. Ask before each act: the first callback after a stop may be a
    /// question. `TRUE` without a group. Main thread.
    __boolean REIsFresh();

    /// Makes the engine and its heartbeat primary or backup. Any thread.
    void RESetActive();
    void RESetInActive();

    /// Sets the function that is called when the engine has become primary (true) or backup; empty
    /// for none. Called on the main thread without a lock: at once for a change made by the group
    /// or another call on the main thread, at the queue's next tick for a change by another thread.
    /// It may call everything and destroy the engine. Main thread.
    void RESetRoleCallback(std::function<void(bool active)> changed);

    // --- Heartbeats ------------------------------------------------------------------------------

    /// Announces the engine 1.5 s from now and then every 10 s. A second call replaces the
    /// repeating timer only. `env` is not kept.
    void REStartHeartBeat(const char* service, const char* domain, CVekEnv* env);

    /// The same on a subject of the caller's choice.
    void REStartHeartBeat(const char* service, const char* domain, CVekEnv* env,
                          const char* subject);

    // Main thread only, or constant after construction, unless stated otherwise.
    kvx::Text m_engineId;
    std::unique_ptr<RvTimer> m_sendTimer;
    __serv_types m_serviceType = SERV_UNKNOWN;
    std::unique_ptr<CVekStack> m_sendQueue;  // guarded by m_requestMutex
    std::unique_ptr<CVekDoubleList> m_reservedList;
    std::unique_ptr<RvTimer> m_hbTimer;
    std::unique_ptr<RvTimer> m_hbFirstTimer;
    std::unique_ptr<CVekHeartbeatClb> m_heartbeat;
    unsigned long m_maxSendRate = 0;  // guarded by m_lock
    rvft_MemberId m_ftMemberId = nullptr;
    kvx::Text m_groupName;
    kvx::Text m_groupBase;
    __boolean m_leader = TRUE;
    __boolean m_ready = FALSE;
    __boolean m_active = FALSE;  // guarded by m_lock
    __boolean m_consumer = FALSE;
    int m_tierNo = 0;
    std::unique_ptr<CVekRvErrorClb> m_ftErrorCallback;
    std::unique_ptr<RvSession> m_ftSession;

  private:
    friend class CVekInitTimedClb;

    /// What a left group leaves behind. Destroying it may run user code.
    struct LeftGroup {
        std::unique_ptr<CVekRvErrorClb> callback;
        std::unique_ptr<RvSession> session;
        std::vector<std::unique_ptr<RvListener>> listeners;
    };

    RvSender* RENewSender(const char* subject, __boolean domainQualify);
    RvSender* RENewSenderOnSubject(const char* subject);
    int REStoreNewSender(RvSender* sender, const char* subject);
    int RESend(const RvSender* sender, const RvDatum& datum);
    RvListener* RESend(const RvSender* sender, const RvDatum& datum,
                       const RvDataCallback* callback);
    RvListener* RESend(const RvSender* sender, const RvDatum& datum, const RvDataCallback* callback,
                       unsigned long timeout);
    RvListener* RESendAndRequestReply(const RvSender* sender, const RvDatum& datum,
                                      const RvDataCallback* callback, unsigned long timeout);
    int RESendWithNoReplyRequested(const RvSender* sender, const RvDatum& datum);
    int REAddToSendQueue(RvSender* sender, RvDatum* datum, const RvDataCallback* callback);
    int REAddToSendQueue(RvSender* sender, RvDatum* datum, const RvDataCallback* callback,
                         unsigned long timeout);
    int REAddToSendQueueFront(RvSender* sender, RvDatum* datum, const RvDataCallback* callback);

    void build(int tierNo, kvx::Text groupBase, __serv_types serviceType, int idLine,
               int sessionLine);
    kvx::Text prepareSubject(const char* subject, __boolean domainQualify);
    int sendOnNewSender(const char* subject, const RvDatum& datum);
    int keepSender(std::unique_ptr<RvSender> sender, const char* subject);
    RvListener* requestOnNewSender(const char* subject, const RvDatum& datum,
                                   const RvDataCallback* callback, unsigned long timeout);
    rv_Session openGroupSession();
    LeftGroup leaveGroup();
    void joinGroup(rv_Session session);
    void setActive(__boolean active);
    void tellRole();
    bool isTicking() const;
    void sendPromptly();
    void beginTickByClock();
    unsigned long itemsPerTick();
    int push(CVekSendQueueItem* item, int (CVekStack::*where)(void*));
    void postDrain();

    // Heartbeats replaced by a second REStartHeartBeat, deleted with the engine.
    std::vector<std::unique_ptr<CVekHeartbeatClb>> m_retiredHeartbeats;
    std::vector<std::unique_ptr<RvTimer>> m_retiredTimers;
    std::shared_ptr<const void> m_groupLoopClaim;

    // Main thread only.
    std::function<void(bool active)> m_roleChanged;
    std::function<std::unique_ptr<CVekSendQueueItem>()> m_sendSource;
    bool m_toldActive = false;
    unsigned long m_sentInTick = 0;  // items of the queue, promptly or by the tick itself

    std::chrono::steady_clock::time_point m_tickBegin;  // without the queue's timer

    // Guarded by m_requestMutex.
    bool m_sendsPromptly = false;
    bool m_isDrainPosted = false;
};

/// The group's action callback: makes the engine of `engine` primary (action 2) or backup (3).
KVX_API void VekGetActivates(rv_Session session, const char* group, int action, void* engine);
