// What runs: the loop, its signals and its end, periodic work, notices and roles. How questions are
// answered is told in Answering.cpp. The engine is the main thread's; other threads queue, post and
// count.

#include "kvx/Service.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "kvx/Answering.h"
#include "kvx/Domain.h"
#include "kvx/NoDaemon.h"
#include "kvx/OneLoop.h"
#include "mom/mom.h"
#include "platform/Memory.h"
#include "rv/session/rvSessionHooks.h"

namespace kvx {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kTick{100};  // of periodic work
constexpr unsigned kWorkThreads = 2;
constexpr std::chrono::seconds kForTheQueue{5};
constexpr int kTicksBetweenNumbers = 100;  // the last number is told every 10 s

// A name that the system does not know joins its group all the same: the kind itself is not told.
__serv_types kindOf(const ServiceName& name, const Service::Options& options) {
    if (options.group.empty()) return SERV_UNKNOWN;
    const __serv_types known = CVekServiceToSubjectMapper::ServiceStringToEnum(name.text().c_str());
    return known != SERV_UNKNOWN ? known : SERV_HELPER;
}

}  // namespace

class Service::Impl : public RvTimerCallback {
  public:
    Impl(ServiceName name, Options options, std::shared_ptr<const void> claim)
        : claim_(std::move(claim)),
          name_(std::move(name)),
          options_(std::move(options)),
          engine_(options_.tier, options_.group.c_str(), options_.domain.c_str(),
                  kindOf(name_, options_), options_.daemon) {}

    ~Impl() override {
        stopping_ = true;
        answering_.end();
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
            rv_AddHook(session, RV_HOOK_RECONNECT, onReturn, this) != 0 || !answering_.open()) {
            return tl::unexpected(
                Error{Errc::NoMemory, "the bus refuses", detail::connecting(engine_.RRNAddress())});
        }
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
        if (std::exchange(hasRun_, true)) return 1;
        if (answer && !answering_.start(name_.querySubject(), std::move(answer))) return 1;
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
        if (options_.endsBySignals) signals.manage(&engine_, [this] { beginEnding(); });
        {
            CVekTimedWorkMgr works(&engine_, 1, kTick.count(), kWorkThreads, nullptr, FALSE);
            for (const auto& work : works_) works.RTWMAddPoll(work.get());
            works.RTWMDistributePolls();
            int status = kOk;
            tick_.reset(engine_.RRNNewTimer(&status, kTick.count(), rv_TRUE, this, nullptr));
            setLoop(rv_EventManager(engine_.m_session->handle()));
            engine_.REDoIt();
            setLoop(nullptr);
            tick_.reset();
            endPosting();  // a work may wait for what it has posted
        }
        signals.stop();
        return leave();
    }

    // --- Any thread ---

    Result<> notify(std::span<const Record> records) {
        if (records.empty() && !name_.notifySubject().empty()) return {};
        const std::string tried = "notify on " + name_.notifySubject();
        if (auto room = roomForNotices(records.size(), tried); !room) return room;
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

    [[nodiscard]] Statistics statistics() const { return answering_.statistics(); }

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

    static int onLoss(rv_Session, const void*, void* self) {
        static_cast<Impl*>(self)->isConnected_ = false;
        static_cast<Impl*>(self)->answering_.dropAnswers();
        return 0;
    }

    static int onReturn(rv_Session, const void*, void* self) {
        static_cast<Impl*>(self)->isConnected_ = true;
        static_cast<Impl*>(self)->tellNumber();
        return 0;
    }

    Result<> roomForNotices(std::size_t notices, const std::string& tried) {
        if (name_.notifySubject().empty()) {
            return tl::unexpected(Error{Errc::InvalidArgument, "it tells no changes", tried});
        }
        if (stopping_) return tl::unexpected(Error{Errc::Ended, {}, tried});
        const auto waiting = static_cast<std::size_t>(engine_.RESendQueueLength());
        if (waiting + notices <= static_cast<std::size_t>(options_.mostWaiting)) return {};
        return tl::unexpected(Error{Errc::QueueFull, {}, tried});
    }

    // Also while the service ends: who looks at the queue then sees that it has not been sent.
    void sendNotice(const Changes::Notice& notice) {
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

    void onTimer(RvTimer*) override {
        keepEpoch();
        answering_.takeHeld();
        if (answering_.isEnding() &&
            (!answering_.isLeaving() || std::chrono::steady_clock::now() > endAt_)) {
            engine_.RRNStopLoop();
        }
    }

    // The loop ends when the answers that have begun to leave are gone; at once when asked again,
    // or without a daemon.
    void beginEnding() {
        const bool isFirst = answering_.beginEnding();
        endAt_ = std::chrono::steady_clock::now() + kForTheQueue;
        if (!isFirst || !isConnected_ || !answering_.isLeaving()) engine_.RRNStopLoop();
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

    // What is queued goes out, then the group hears that another member is to answer.
    int leave() {
        engine_.RESetRoleCallback({});
        engine_.RESetInActive();
        answering_.beginEnding();
        const bool isAllSent = sendQueued(std::chrono::steady_clock::now() + kForTheQueue);
        engine_.RELeaveGroup();
        answering_.end();
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

    const std::shared_ptr<const void> claim_;
    const ServiceName name_;
    const Options options_;

    // Main thread only.
    std::vector<std::unique_ptr<MessageListener>> listeners_;
    std::vector<std::unique_ptr<Work>> works_;

    bool hasRun_ = false;
    std::chrono::steady_clock::time_point endAt_;
    std::unique_ptr<RvTimer> tick_;  // while the loop runs

    std::mutex gate_;                            // held while something is queued
    std::vector<std::function<void()>> posted_;  // guarded by gate_
    rvevm_Manager loop_ = nullptr;               // guarded by gate_; null while none runs
    std::atomic<bool> stopping_{false};          // the loop has ended
    std::atomic<bool> isConnected_{false};

    CVekEngine engine_;

    std::atomic<bool> isNumbered_{false};
    int ticks_ = kTicksBetweenNumbers - 1;  // main thread only
    Changes changes_{{[this](std::size_t notices) {
                          return roomForNotices(notices, "commit on " + name_.notifySubject());
                      },
                      [this](const Changes::Notice& notice) { sendNotice(notice); }}};

    Answering answering_{engine_, options_, changes_, isNumbered_};  // ends before what it uses
};

Service::Service(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Service::Service(Service&&) noexcept = default;
Service& Service::operator=(Service&&) noexcept = default;
Service::~Service() = default;

Result<Service> Service::open(const ServiceName& name, Options options) {
    if (auto named = detail::checkDomain(options.domain); !named) {
        return tl::unexpected(std::move(named.error()));
    }
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
