#pragma once

#include <map>
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
#include "rvbridge/LossReports.h"
#include "rvbridge/Options.h"
#include "rvbridge/Routes.h"

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
    void onEngineDown();
    /// True when the message is of this space.
    bool onEngineMessage(std::string_view subject, Bytes bytes);
    void onEngineLoss(LossCause cause) { receiver_.fault(cause); }
    /// To be called about every 100 ms.
    void tick();

  private:
    struct Own {
        unsigned snapshot = 0;  // the last one that has named it
        bool isImported = false;
        std::uint64_t since = 0;  // the change with which it was added
    };

    void onDaemonUp() override;
    void onDaemonDown(const std::string& why) override;
    void onDaemonMessage(wire::Bytes message) override;

    void sendToAll(std::uint64_t number, Bytes control) override;
    void sendTo(std::string_view host, Bytes control) override;
    void listen(SubjectView subject) override;
    void cancel(SubjectView subject) override;
    void hostUp(const HostState& host) override;
    void hostDown(const HostState& host) override;
    void refused(const std::string& reason) override;
    void ready() override;
    void marksWanted(std::string_view host, std::uint64_t after) override;

    bool message(SubjectView subject, Bytes message) override;
    void lost(std::string_view host, SubjectView subject, std::uint64_t messages,
              LossCause cause) override;
    bool heardAllOf(const Frame& frame, SubjectView subject) override;
    bool isSubscribedSince(std::uint64_t change, SubjectView subject) override;
    bool mayBegin(const Frame& frame, SubjectView subject) override;

    void hearInterest(Bytes message);
    void hearInterestField(std::string_view name, rvmsg_Type type, rvmsg_Size size,
                           rvmsg_Data value);
    void completeSnapshot();
    void addOwn(SubjectView subject);
    void removeOwn(SubjectView subject);
    void hearDropped(Bytes message);
    void joinWhenComplete();
    void tellDaemon(SubjectView subject, bool isListen);
    void tellOwed();
    void take(Frame frame, SubjectView subject);
    [[nodiscard]] bool isSubscribedTo(SubjectView subject);
    void answerHosts(Bytes message);

    void pass(SubjectView subject, Bytes message);
    void sendParts(SubjectView subject, const MessageNumber& number, Bytes message);
    void endFrame();
    void endTurnSoon();
    void endTurn();
    void returnMemory();
    bool sendMark();
    bool sendMarksOfDropped();
    void sendMarks();
    [[nodiscard]] bool publish(const std::string& subject, Bytes frame);
    [[nodiscard]] bool append(SubjectView subject, const MessageNumber& number, Bytes message);

    // Constant after construction.
    const rvevm_Manager manager_;
    const Options& options_;
    const EngineSubjects subjects_;
    Engine& engine_;
    platform::Log& log_;
    BridgeOwner& owner_;

    DaemonLink daemon_;
    LossReports reports_;
    Exchange exchange_;
    Routes routes_;
    Sender sender_;
    Receiver receiver_;
    FrameWriter writer_;    // of messages
    FrameWriter control_;   // of all else, which may come while a frame of messages is open
    std::string openAt_;    // the subject at the engine of the open frame
    std::string openHost_;  // to which the open frame goes directly; else empty
    std::string run_;       // the encoded subject of its last message
    std::vector<std::string> runs_;  // the subjects in it

    std::string lastWhy_;  // there was no daemon; attempts that fail alike are told once
    bool isEngineUp_ = false;
    bool isComplete_ = false;  // the daemon's first snapshot
    bool hasStarted_ = false;
    Microseconds quietAt_ = 0;                                         // next marks of the quiet
    std::map<std::string, std::uint64_t, std::less<>> marksWantedBy_;  // hosts: after what
    rvevm_Id turn_ = nullptr;

    std::unordered_map<std::string, Own> own_;  // encoded subjects that local sessions listen to
    SubjectTree<Own> imported_;                 // those that others are told of
    unsigned snapshot_ = 0;
    std::unordered_set<std::string> others_;  // what we listen to for other hosts
    std::unordered_set<std::string> owed_;  // of which the daemon, without room, knows the opposite

    std::string hostsText_;         // the last answer
    Microseconds hostsUntil_ = 0;   // it holds until then
    std::uint64_t unreadable_ = 0;  // since they were logged last
    std::size_t gone_ = 0;          // subjects, since freed memory was returned
    std::size_t goneBefore_ = 0;    // the same, when last looked at
    Microseconds lookedAt_ = 0;
};

}  // namespace kvx::bridge
