// The way of a question: the main thread takes it off the bus (onData). The active member hands it
// to the pool (QuestionPool), whose thread makes the packets of the answer (Reply); the main thread
// sends them in turn with those of other answers (Answers). A standby holds the question until it
// is too old or the member becomes active. Bus objects never leave the main thread: what travels to
// the pool is the question's text and the name of the subject that the answer goes to.

#include "kvx/Service.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "kvx/Answers.h"
#include "kvx/Changes.h"
#include "kvx/HeldQuestions.h"
#include "kvx/OneLoop.h"
#include "kvx/QuestionPool.h"
#include "kvx/ReplyState.h"
#include "mom/mom.h"
#include "platform/Memory.h"
#include "rv/session/rvSessionHooks.h"

namespace kvx {

using detail::Asked;

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kRoomPoll{20};
constexpr std::chrono::milliseconds kTick{100};  // of periodic work
constexpr unsigned kWorkThreads = 2;
constexpr std::chrono::seconds kForTheQueue{5};
constexpr std::size_t kMostText = std::size_t{1} << 20U;  // bytes of a question
constexpr const char* kTooLong = "the question is longer than 1 MiB";
constexpr const char* kNoQuery = "this is no query";
constexpr const char* kTooLongAgo = "the changes since then are not held any more";
constexpr int kTicksBetweenNumbers = 100;  // the last number is told every 10 s
constexpr const char* kTooMany = "too many questions are waiting";

// A name that the system does not know joins its group all the same: the kind itself is not told.
__serv_types kindOf(const ServiceName& name, const Service::Options& options) {
    if (options.group.empty()) return SERV_UNKNOWN;
    const __serv_types known = CVekServiceToSubjectMapper::ServiceStringToEnum(name.text().c_str());
    return known != SERV_UNKNOWN ? known : SERV_HELPER;
}

}  // namespace

class Service::Impl : public RvDataCallback, public RvTimerCallback {
  public:
    Impl(ServiceName name, Options options, std::shared_ptr<const void> claim)
        : claim_(std::move(claim)),
          name_(std::move(name)),
          options_(std::move(options)),
          engine_(options_.tier, options_.group.c_str(), options_.domain.c_str(),
                  kindOf(name_, options_), options_.daemon) {}

    ~Impl() override {
        endPool();
        if (!engine_.m_session) return;
        rv_RemoveHook(engine_.m_session->handle(), RV_HOOK_DISCONNECT, onLoss, this);
        rv_RemoveHook(engine_.m_session->handle(), RV_HOOK_RECONNECT, onReturn, this);
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    Result<> connect() {
        if (engine_.m_sessionUp != 1) return tl::unexpected(detail::noDaemon(engine_));
        if (engine_.RRNAllowPosts() != kOk || engine_.RESendPromptly() != kOk) {
            return tl::unexpected(Error{Errc::NoMemory, "the loop cannot be woken",
                                        detail::connecting(engine_.RRNAddress())});
        }
        engine_.RESetMaxSendRate(options_.sendRate);
        const rv_Session session = engine_.m_session->handle();
        if (rv_AddHook(session, RV_HOOK_DISCONNECT, onLoss, this) != 0 ||
            rv_AddHook(session, RV_HOOK_RECONNECT, onReturn, this) != 0 || !answers_.start()) {
            return tl::unexpected(
                Error{Errc::NoMemory, "the bus refuses", detail::connecting(engine_.RRNAddress())});
        }
        answers_.isCrowded = [this] {
            return pool_ ? pool_->isCrowded() : packetsWaiting() > options_.mostWaiting;
        };
        isConnected_ = rv_IsConnected(session);
        if (options_.group.empty()) changes_.begin(Changes::newEpoch());
        return {};
    }

    // --- Main thread ---

    std::function<void(const Question&, Reply&)> answer;
    std::function<void(bool)> role;

    Result<> listen(std::string_view subject, std::function<void(const Message&)> received) {
        const std::string on(subject);
        auto listener = std::make_unique<MessageListener>(std::move(received));
        if (engine_.RRNAddService(on.c_str(), listener.get()) != kOk) {
            return tl::unexpected(Error{Errc::InvalidArgument, "no subject that can be listened on",
                                        "listen on " + on});
        }
        listeners_.push_back(std::move(listener));
        return {};
    }

    Result<> every(std::chrono::milliseconds interval, std::string_view name,
                   std::function<void()> work) {
        const std::string as(name);
        const bool isTaken =
            std::ranges::any_of(works_, [&](const auto& one) { return one->name == as; });
        if (interval < 1ms || interval > 24h || as.empty() || isTaken) {
            return tl::unexpected(
                Error{Errc::InvalidArgument,
                      isTaken ? "there is one of this name"
                              : "it needs an interval of 1 ms to 24 h and a name",
                      "every " + std::to_string(interval.count()) + " ms '" + as + "'"});
        }
        works_.push_back(std::make_unique<Work>(as, interval, std::move(work)));
        return {};
    }

    int run() {
        if (std::exchange(hasRun_, true) || (answer && !startAnswering())) return 1;
        engine_.RRNSetPostInitFns([this] {
            engine_.RESetRoleCallback([this](bool active) { roleChanged(active); });
            roleChanged(engine_.REIsActive() == TRUE);
        });
        CVekEnv environment;
        if (options_.beats) {
            engine_.REStartHeartBeat(name_.text().c_str(), options_.domain.c_str(), &environment);
        }
        if (options_.group.empty()) engine_.RESetActive();
        CMOMSignalHandler signals;
        signals.manage(&engine_, [this] { beginEnding(); });
        {
            CVekTimedWorkMgr works(&engine_, 1, kTick.count(), kWorkThreads, nullptr, FALSE);
            for (const auto& work : works_) works.RTWMAddPoll(work.get());
            works.RTWMDistributePolls();
            int status = kOk;
            endTimer_.reset(engine_.RRNNewTimer(&status, kTick.count(), rv_TRUE, this, nullptr));
            setLoop(rv_EventManager(engine_.m_session->handle()));
            engine_.REDoIt();
            setLoop(nullptr);
            endTimer_.reset();
            endPosting();  // a work may wait for what it has posted
        }
        signals.stop();
        return leave();
    }

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override {
        if (replyTo == nullptr || isEnding_) return;
        CVekQryInfo info(subject, nullptr, data, listener);
        Asked asked{.text = {},
                    .replySubject = replyTo->subject(),
                    .version = info.RQIVersion() == VEK_TRANS_V1 ? VEK_TRANS_V1 : VEK_TRANS_V0,
                    .window = conversation::readWindow(data)};
        if (isNumbered_) asked.since = readHistoryQuestion(data);
        if (asked.since) return answerOrHold(std::move(asked));
        const Text text(info.RQIQuery());
        if (!text) return isActing() ? refuse(asked, kNoQuery) : void();
        const std::size_t length = strnlen(text.get(), kMostText + 1);
        if (length > kMostText) return isActing() ? refuse(asked, kTooLong) : void();
        asked.text.assign(text.get(), length);
        answerOrHold(std::move(asked));
    }

    // --- Any thread ---

    Result<> notify(std::span<const Record> records) {
        const std::string tried = "notify on " + name_.notifySubject();
        if (name_.notifySubject().empty()) {
            return tl::unexpected(Error{Errc::InvalidArgument, "it tells no changes", tried});
        }
        if (records.empty()) return {};
        const auto waiting = static_cast<std::size_t>(engine_.RESendQueueLength());
        if (waiting + records.size() > static_cast<std::size_t>(options_.mostWaiting)) {
            return tl::unexpected(Error{Errc::QueueFull, {}, tried});
        }
        CVekTransport transport(&engine_);
        for (const Record& record : records) {
            if (detail::addTo(transport, record)) continue;
            return tl::unexpected(
                Error{Errc::InvalidArgument, "a record cannot be encoded", tried});
        }
        transport.RTSetDestination(name_.notifySubject().c_str());
        transport.RTCreatePackets(VEK_TRANS_V0, true);
        const std::lock_guard guard(gate_);
        if (stopping_) return tl::unexpected(Error{Errc::Ended, {}, tried});
        if (transport.RTSendAll(false) == kOk) return {};
        return tl::unexpected(
            Error{Errc::InvalidArgument, "a record is too large for a message", tried});
    }

    Changes& changes() {
        isNumbered_ = true;
        return changes_;
    }

    Result<> post(std::function<void()> work) {
        const std::lock_guard guard(gate_);
        if (stopping_) return tl::unexpected(Error{Errc::Ended, {}, "post"});
        posted_.push_back(std::move(work));
        if (posted_.size() == 1) engine_.RRNPost([this] { runPosted(); });
        return {};
    }

    [[nodiscard]] bool isActive() { return engine_.REIsActive() == TRUE; }

    void stop() {
        engine_.RRNPost([this] { beginEnding(); });
        // At once while the loop waits for the daemon to come back.
        const std::lock_guard guard(gate_);
        if (loop_ != nullptr && !isConnected_) rvevm_Stop(loop_);
    }

    [[nodiscard]] Statistics statistics() const {
        return {.answered = answered_,
                .held = takenFromHeld_,
                .refused = refused_,
                .dropped = pool_ ? pool_->dropped() : 0,
                .abandoned = answers_.abandoned(),
                .waiting = pool_ ? pool_->waiting() : 0};
    }

    std::string querySubject() {
        const Text subject(engine_.RRNDomainSubj(name_.querySubject().c_str()));
        return subject ? subject.get() : "";
    }

    CVekEngine& engine() { return engine_; }

  private:
    class MessageListener : public RvDataCallback {
      public:
        explicit MessageListener(std::function<void(const Message&)> received)
            : received_(std::move(received)) {}
        void onData(const char*, RvSender*, const RvDatum& data, RvListener*) override {
            if (data.type() == RVMSG_MSG) received_(Message(static_cast<const RvMsg&>(data)));
        }

      private:
        const std::function<void(const Message&)> received_;
    };

    struct Work : CVekTimedWork {
        Work(std::string given, std::chrono::milliseconds interval, std::function<void()> function)
            : name(std::move(given)), work(std::move(function)) {
            RTWSetName(new CVekAtom(name.c_str()));
            RTWSetFrequency(static_cast<int>((interval + kTick - 1ms) / kTick));
        }
        __boolean RTWAddToPool() override { return RTWPollIsExecuting() ? FALSE : TRUE; }
        void RTWDoPoll() override { work(); }

        const std::string name;
        const std::function<void()> work;
    };

    // Hears which long answers other members have begun.
    class BegunListener : public RvDataCallback {
      public:
        explicit BegunListener(HeldQuestions<Asked>& held) : held_(held) {}
        void onData(const char*, RvSender*, const RvDatum& data, RvListener*) override {
            held_.forget(readBegun(data));
        }

      private:
        HeldQuestions<Asked>& held_;
    };

    static int onLoss(rv_Session, const void*, void* self) {
        static_cast<Impl*>(self)->isConnected_ = false;
        static_cast<Impl*>(self)->answers_.endAll();
        return 0;
    }

    static int onReturn(rv_Session, const void*, void* self) {
        static_cast<Impl*>(self)->isConnected_ = true;
        static_cast<Impl*>(self)->tellNumber();
        return 0;
    }

    bool startAnswering() {
        begunSubject_ = begunSubject(querySubject());
        if (options_.threads > 0) {
            packer_.emplace();
            pool_.emplace(options_.threads, options_.oldestQuestion,
                          [this](const Asked& asked, detail::Turns::Turn& turn) {
                              waitForRoom();
                              const auto isTooLate = [this, &asked] {
                                  if (!pool_->isTooOld(asked)) return false;
                                  pool_->countDropped();
                                  return true;
                              };
                              const Reply::State::Worker worker{turn, *packer_, isTooLate};
                              answerQuestion(asked, &worker);
                          });
        }
        return (options_.group.empty() ||
                engine_.RRNAddExService(begunSubject_.c_str(), &begunListener_) == kOk) &&
               engine_.RRNAddService(name_.querySubject().c_str(), this) == kOk;
    }

    // Whether it may answer: active, and not lately stopped for so long that another may be.
    bool isActing() { return engine_.REIsActive() == TRUE && engine_.REIsFresh() == TRUE; }

    void answerOrHold(Asked asked) {
        if (isActing()) return answerLater(std::move(asked));
        held_.hold(std::move(asked), std::chrono::steady_clock::now());
    }

    Result<> roomForNotices(std::size_t notices) {
        const std::string tried = "commit on " + name_.notifySubject();
        if (name_.notifySubject().empty()) {
            return tl::unexpected(Error{Errc::InvalidArgument, "it tells no changes", tried});
        }
        if (stopping_) return tl::unexpected(Error{Errc::Ended, {}, tried});
        const auto waiting = static_cast<std::size_t>(engine_.RESendQueueLength());
        if (waiting + notices <= static_cast<std::size_t>(options_.mostWaiting)) return {};
        return tl::unexpected(Error{Errc::QueueFull, {}, tried});
    }

    void sendNotice(const Changes::Notice& notice) {
        const std::lock_guard guard(gate_);
        if (stopping_) return;
        engine_.REAddToSendQueue(name_.notifySubject().c_str(), new RvMsg(notice.message()),
                                 nullptr, TRUE);
    }

    void keepEpoch() {
        const bool isNew =
            changes_.keepEpoch(engine_.REIsActive() == TRUE, engine_.REIsFresh() == TRUE);
        if (isNew || ++ticks_ % kTicksBetweenNumbers == 0) tellNumber();
    }

    void tellNumber() {
        if (isNumbered_ && !name_.notifySubject().empty()) changes_.tell();
    }

    void roleChanged(bool active) {
        keepEpoch();
        if (role) role(active);
    }

    void takeHeld() {
        auto held = held_.take(std::chrono::steady_clock::now());
        takenFromHeld_ += held.size();
        for (Asked& asked : held) answerLater(std::move(asked));
    }

    // What was held is answered once this member may act, which is a little after it is active.
    void onTimer(RvTimer*) override {
        keepEpoch();
        if (held_.size() > 0 && !isEnding_ && isActing()) takeHeld();
        if (isEnding_ && (!answers_.isLeaving() || std::chrono::steady_clock::now() > endAt_)) {
            engine_.RRNStopLoop();
        }
    }

    // The loop ends when the answers that have begun to leave are gone; at once when asked again,
    // or without a daemon.
    void beginEnding() {
        const bool isFirst = !isEnding_.exchange(true);
        endAt_ = std::chrono::steady_clock::now() + kForTheQueue;
        answers_.endUnbegun();
        if (!isFirst || !isConnected_ || !answers_.isLeaving()) engine_.RRNStopLoop();
    }

    void setLoop(rvevm_Manager loop) {
        const std::lock_guard guard(gate_);
        loop_ = loop;
    }

    // What has been posted is done, and no more is taken.
    void endPosting() {
        {
            const std::lock_guard guard(gate_);
            stopping_ = true;
        }
        runPosted();
    }

    // What is posted meanwhile waits for the next turn.
    void runPosted() {
        std::vector<std::function<void()>> due;
        {
            const std::lock_guard guard(gate_);
            due.swap(posted_);
        }
        for (const auto& work : due) work();
    }

    // Without a word when even that would have to wait too long.
    void refuse(const Asked& asked, const char* why) {
        ++refused_;
        if (packetsWaiting() > 2 * options_.mostWaiting) return;
        Reply::State refusal(answers_.begin(asked.replySubject, asked.window), asked.version,
                             nullptr, {});
        Reply(refusal).refuse(why);
        refusal.finish();
    }

    void answerLater(Asked asked) {
        if (pool_) {
            // Refused only when it could not be taken: `add` then leaves it as it is.
            if (!pool_->add(asked)) refuse(asked, kTooMany);
        } else if (packetsWaiting() > options_.mostWaiting) {
            refuse(asked, kTooMany);
        } else {
            answerQuestion(asked, nullptr);
        }
    }

    int packetsWaiting() {
        return engine_.RESendQueueLength() + static_cast<int>(answers_.packets());
    }

    void waitForRoom() {
        while (!stopping_ && packetsWaiting() > options_.mostWaiting) {
            VekSleep(static_cast<unsigned>(kRoomPoll.count()));
        }
    }

    void answerQuestion(const Asked& asked, const Reply::State::Worker* worker) {
        if (isEnding_ || stopping_) return;
        ++answered_;
        std::function<void()> tellOthers;
        if (!options_.group.empty()) {
            tellOthers = [&] { tellBegun(engine_, begunSubject_, asked.replySubject); };
        }
        Reply::State state(answers_.begin(asked.replySubject, asked.window), asked.version, worker,
                           std::move(tellOthers));
        Reply reply(state);
        if (asked.since) {
            answerHistory(*asked.since, state);
            return state.finish();
        }
        try {
            answer({asked.text, asked.replySubject}, reply);
        } catch (const std::exception& error) {
            reply.refuse(error.what());
        } catch (...) {
            reply.refuse("the service failed");
        }
        state.finish();
    }

    void answerHistory(const Stamp& since, Reply::State& state) const {
        const auto notices = changes_.since(since);
        if (!notices) return Reply(state).refuse(kTooLongAgo);
        for (const Changes::Notice& notice : *notices) {
            if (!state.add(notice)) return;
        }
    }

    // What is queued goes out, then the group hears that another member is to answer.
    int leave() {
        engine_.RESetRoleCallback({});
        engine_.RESetInActive();
        answers_.endUnbegun();
        const bool isAllSent = sendQueued(std::chrono::steady_clock::now() + kForTheQueue);
        engine_.RELeaveGroup();
        endPool();
        return isAllSent ? 0 : 1;
    }

    // False when something could not be sent before `end`, or at all.
    bool sendQueued(std::chrono::steady_clock::time_point end) {
        using std::chrono::milliseconds;
        while (const auto item = std::unique_ptr<CVekSendQueueItem>(engine_.RENextSendItem())) {
            const auto left =
                std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now());
            if (left <= milliseconds(0) || item->RSQIDeQueueIt() != kOk ||
                rv_Flush(engine_.m_session->handle(), static_cast<unsigned long>(left.count())) !=
                    0) {
                return false;
            }
        }
        return true;
    }

    void endPool() {
        stopping_ = true;
        answers_.endAll();
        pool_.reset();
    }

    const std::shared_ptr<const void> claim_;
    const ServiceName name_;
    const Options options_;
    std::string begunSubject_;

    // Main thread only.
    HeldQuestions<Asked> held_;
    BegunListener begunListener_{held_};
    std::vector<std::unique_ptr<MessageListener>> listeners_;
    std::vector<std::unique_ptr<Work>> works_;

    bool hasRun_ = false;
    std::chrono::steady_clock::time_point endAt_;
    std::unique_ptr<RvTimer> endTimer_;  // while the loop runs

    std::mutex gate_;                            // held while something is queued
    std::vector<std::function<void()>> posted_;  // guarded by gate_
    rvevm_Manager loop_ = nullptr;               // guarded by gate_; null while none runs
    std::atomic<bool> isEnding_{false};          // no further question is answered
    std::atomic<bool> stopping_{false};          // the loop has ended
    std::atomic<bool> isConnected_{false};
    std::atomic<std::uint64_t> answered_{0};
    std::atomic<std::uint64_t> takenFromHeld_{0};
    std::atomic<std::uint64_t> refused_{0};

    CVekEngine engine_;

    std::atomic<bool> isNumbered_{false};
    int ticks_ = kTicksBetweenNumbers - 1;  // main thread only
    Changes changes_{{[this](std::size_t notices) { return roomForNotices(notices); },
                      [this](const Changes::Notice& notice) { sendNotice(notice); }}};

    detail::Answers answers_{engine_, options_.patience};
    std::optional<detail::Packer> packer_;
    std::optional<detail::QuestionPool> pool_;  // its threads end before anything they use
};

Service::Service(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Service::Service(Service&&) noexcept = default;
Service& Service::operator=(Service&&) noexcept = default;
Service::~Service() = default;

Result<Service> Service::open(const ServiceName& name, Options options) {
    auto claim = detail::claimLoop();
    if (!claim) return tl::unexpected(detail::busy());
    auto impl = std::make_unique<Impl>(name, std::move(options), std::move(claim));
    if (auto connected = impl->connect(); !connected) {
        return tl::unexpected(std::move(connected.error()));
    }
    return Service(std::move(impl));
}

Result<Service> Service::open(std::string_view name, Options options) {
    const auto known = ServiceName::of(name);
    if (!known) return tl::unexpected(known.error());
    return open(*known, std::move(options));
}

void Service::onQuery(std::function<void(const Question&, Reply&)> answer) {
    impl_->answer = std::move(answer);
}

void Service::onRole(std::function<void(bool active)> changed) {
    impl_->role = std::move(changed);
}

Result<> Service::onMessage(std::string_view subject,
                            std::function<void(const Message&)> received) {
    return impl_->listen(subject, std::move(received));
}

Result<> Service::every(std::chrono::milliseconds interval, std::string_view name,
                        std::function<void()> work) {
    return impl_->every(interval, name, std::move(work));
}

Result<> Service::notify(std::span<const Record> records) {
    return impl_->notify(records);
}

Changes& Service::changes() {
    return impl_->changes();
}

Result<> Service::post(std::function<void()> work) {
    return impl_->post(std::move(work));
}

Service::Statistics Service::statistics() const {
    return impl_->statistics();
}

std::string Service::querySubject() const {
    return impl_->querySubject();
}

CVekEngine& Service::engine() {
    return impl_->engine();
}

bool Service::isActive() const {
    return impl_->isActive();
}

int Service::run() {
    return impl_->run();
}

void Service::stop() {
    impl_->stop();
}

}  // namespace kvx
