#pragma once

#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/Log.h"
#include "rv/message/SubjectTree.h"
#include "rvbridge/DaemonLink.h"
#include "rvbridge/Engine.h"
#include "rvbridge/EngineSubject.h"
#include "rvbridge/Exchange.h"
#include "rvbridge/Frame.h"
#include "rvbridge/Ledger.h"
#include "rvbridge/Options.h"

namespace kvx::bridge {

/// What becomes of a bridge.
class BridgeOwner {
  public:
    virtual ~BridgeOwner() = default;
    virtual void onBridgeReady() = 0;
    /// It must end, since another one has its name or its daemon.
    virtual void onBridgeRefused(const std::string& reason) = 0;
};

/// One space of this host, joined with the same space of the others: passes messages on in both
/// directions. Loop thread only.
class Bridge final : private DaemonOwner, private ExchangeActions, private ReceiverSink {
  public:
    /// All but `space` must outlive this object.
    Bridge(rvevm_Manager manager, const Options& options, const SpaceName& space,
           const BridgeIdentity& identity, Engine& engine, platform::Log& log, BridgeOwner& owner);
    ~Bridge() override;
    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    /// Connects to the daemon.
    void start();
    /// Says goodbye to the other hosts.
    void stop();

    void onEngineUp();
    void onEngineDown() { isEngineUp_ = false; }
    /// True when the message is of this space.
    bool onEngineMessage(std::string_view subject, Bytes bytes);
    void onEngineLoss();
    /// To be called about every 100 ms.
    void tick();

  private:
    struct Traffic {
        std::uint64_t messages = 0;
        std::uint64_t bytes = 0;
    };
    // Where messages on a subject go. What one host wants goes to it directly. What several want is
    // published on the subject, for a while after that too: the numbers on a subject are seen by
    // all who have seen one of them, also by those of which we do not know yet that they listen.
    struct Route {
        std::uint64_t interest = 0;     // `interest_` when the rest was found
        std::vector<Traffic*> traffic;  // of those who want it
        std::string host;               // the only one
        Microseconds sharedUntil = 0;
        [[nodiscard]] bool isWanted() const { return !traffic.empty(); }
    };
    struct Own {
        unsigned snapshot = 0;  // the last one that has named it
        bool isImported = false;
    };

    void onDaemonUp() override;
    void onDaemonDown(const std::string& why) override;
    void onDaemonMessage(wire::Bytes message) override;

    void sendToAll(Bytes control) override;
    void sendTo(std::string_view host, Bytes control) override;
    void listen(SubjectView subject) override;
    void cancel(SubjectView subject) override;
    void hostUp(const HostState& host) override;
    void hostDown(const HostState& host) override;
    void refused(const std::string& reason) override;
    void ready() override;
    std::uint32_t keyEpoch() override { return sender_.keyEpoch(); }

    void message(SubjectView subject, Bytes message) override;
    void lost(std::string_view host, SubjectView subject, std::uint64_t messages,
              LossCause cause) override;
    bool heardAllOf(const Frame& frame, SubjectView subject) override;
    bool mayBegin(const Frame& frame, SubjectView subject) override;

    void hearInterest(Bytes message);
    void hearInterestField(std::string_view name, rvmsg_Type type, rvmsg_Size size,
                           rvmsg_Data value);
    void completeSnapshot();
    void addOwn(SubjectView subject);
    void removeOwn(SubjectView subject);
    void joinWhenComplete();
    void take(Frame frame, SubjectView subject);
    [[nodiscard]] bool isSubscribedTo(SubjectView subject);
    void answerHosts(Bytes message);
    [[nodiscard]] std::string hostsText();

    void pass(SubjectView subject, Bytes message);
    void sendParts(SubjectView subject, const MessageNumber& number, Bytes message);
    void endFrame();
    void endTurnSoon();
    void endTurn();
    void returnMemory();
    void sendMarks();
    bool sendMarksOfDropped();
    [[nodiscard]] bool publish(const std::string& subject, Bytes frame);
    Route& routeOf(SubjectView subject);
    void refresh(Route& route, SubjectView subject);
    [[nodiscard]] bool isDirect(Route& route, SubjectView subject);
    [[nodiscard]] bool append(SubjectView subject, const MessageNumber& number, Bytes message);

    // Constant after construction.
    const rvevm_Manager manager_;
    const Options& options_;
    const EngineSubjects subjects_;
    Engine& engine_;
    platform::Log& log_;
    BridgeOwner& owner_;

    DaemonLink daemon_;
    Exchange exchange_;
    Sender sender_;
    Receiver receiver_;
    FrameWriter writer_;    // of messages
    FrameWriter control_;   // of all else, which may come while a frame of messages is open
    std::string openAt_;    // the subject at the engine of the open frame
    std::string openHost_;  // to which the open frame goes directly; else empty
    std::string run_;       // the encoded subject of its last message
    std::vector<std::pair<std::string, std::uint32_t>> runs_;  // subjects and messages in it

    std::string lastWhy_;  // there was no daemon; attempts that fail alike are told once
    bool isEngineUp_ = false;
    bool isComplete_ = false;  // the daemon's first snapshot
    bool hasStarted_ = false;
    bool areMarksDue_ = false;
    unsigned roundsDue_ = 0;  // of marks and of a hello, which the others answer with theirs
    Microseconds marksAt_ = 0;
    rvevm_Id turn_ = nullptr;

    std::unordered_map<std::string, Own> own_;  // encoded subjects that local sessions listen to
    SubjectTree<Own> imported_;                 // those that others are told of
    unsigned snapshot_ = 0;
    std::unordered_set<std::string> others_;                    // that we listen to for other hosts
    std::map<std::string, std::uint64_t, std::less<>> epochs_;  // of hosts that have been up

    RecentTable<Route> routes_;                        // by subject
    std::uint64_t interest_ = 1;                       // grows with each change of what others want
    Microseconds sharedUntil_ = 0;                     // of the routes that have left the table
    std::map<std::string, Traffic, std::less<>> out_;  // by host; entries stay
    std::size_t gone_ = 0;                             // subjects, since freed memory was returned
    std::size_t goneBefore_ = 0;                       // the same, when last looked at
    Microseconds lookedAt_ = 0;
    std::uint64_t unreadable_ = 0;
    std::uint64_t notTaken_ = 0;  // messages for which the link to the daemon had no room
};

}  // namespace kvx::bridge
