// The way of a question: the main thread takes it off the bus. The active member hands it to the
// pool, whose thread answers into the engine's send queue; a standby holds it until it is too old
// or the member becomes active. Bus objects never leave the main thread: what travels to the pool
// is the question's text and the name of the subject that the answer goes to.

#include "kvx/Service.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "kvx/HeldQuestions.h"
#include "kvx/OneLoop.h"
#include "mom/mom.h"
#include "platform/Memory.h"

namespace kvx {

namespace detail {

struct Asked {
    std::string text;
    std::string replySubject;
    EVekTransHdr version = VEK_TRANS_V0;
};

}  // namespace detail

using detail::Asked;

namespace {

using namespace std::chrono_literals;

constexpr int kMostQuestions = 1000;  // that may wait for a thread
constexpr std::chrono::milliseconds kRoomPoll{20};
constexpr std::chrono::milliseconds kTick{100};  // of periodic work
constexpr unsigned kWorkThreads = 2;
constexpr std::chrono::seconds kForTheQueue{5};
constexpr std::size_t kMostText = std::size_t{1} << 20U;  // bytes of a question
constexpr const char* kTooLong = "the question is longer than 1 MiB";
constexpr const char* kTooMany = "too many questions are waiting";

// A name that the system does not know joins its group all the same: the kind itself is not told.
__serv_types kindOf(const ServiceName& name, const Service::Options& options) {
    if (options.group.empty()) return SERV_UNKNOWN;
    const __serv_types known = CVekServiceToSubjectMapper::ServiceStringToEnum(name.text().c_str());
    return known != SERV_UNKNOWN ? known : SERV_HELPER;
}

// False when the record has no encoding.
bool addTo(CVekTransport& transport, const Record& record) {
    unsigned char* bytes = nullptr;
    int length = 0;
    if (record.base().ROMEncode(&bytes, &length) != kOk) return false;
    auto atom = std::make_unique<CVekAtom>(bytes, length);  // takes the bytes over
    CVekAtom* taken = atom.release();
    if (transport.RTTakeROMP(&taken) == kOk) return true;
    delete taken;
    return false;
}

}  // namespace

// --- One answer --------------------------------------------------------------------------------

class Reply::State {
  public:
    State(CVekEngine& engine, EVekTransHdr version) : engine_(engine), version_(version) {}

    // An answer that lacks a row must not look whole.
    void add(const Record& record) {
        if (!addTo(*transport_, record)) {
            return refuse(Record{{"error", "a row of the answer cannot be encoded"}});
        }
        transport_->RTPreparePayloads(version_);
        ++rows_;
    }

    void refuse(const Record& reason) {
        transport_.emplace(&engine_);
        add(reason);
        status_ = STORE_PERMISSION_DENIED;
    }

    [[nodiscard]] bool isRefused() const { return status_ == STORE_PERMISSION_DENIED; }
    [[nodiscard]] bool isLong() const { return isLongAnswer(version_, rows_); }

    // False, with nothing sent, when a packet is too large for a message.
    [[nodiscard]] bool send(const std::string& replySubject) {
        transport_->RTSetError(rows_ == 0 ? STORE_ZERO_MATCHES : status_);
        transport_->RTSetDestinationOnSubject(replySubject.c_str());
        if (rows_ == 0) {
            transport_->RTNilResults();
        } else {
            transport_->RTCreatePackets(version_, true);
        }
        return transport_->RTSendAll(false) == kOk;
    }

  private:
    CVekEngine& engine_;
    const EVekTransHdr version_;
    std::optional<CVekTransport> transport_{&engine_};
    std::uint64_t rows_ = 0;
    EVekStoreErrorStatus status_ = STORE_COMPLETE;
};

void Reply::row(const Record& record) {
    if (!state_.isRefused()) state_.add(record);
}

void Reply::refuse(std::string_view why, int position) {
    if (state_.isRefused()) return;
    Record reason{{"error", why}};
    if (position > 0) static_cast<void>(reason.set("position", position));
    state_.refuse(reason);
}

// --- The service -------------------------------------------------------------------------------

class Service::Impl : public RvDataCallback {
  public:
    Impl(ServiceName name, Options options, std::shared_ptr<const void> claim)
        : claim_(std::move(claim)),
          name_(std::move(name)),
          options_(std::move(options)),
          engine_(options_.tier, options_.group.c_str(), options_.domain.c_str(),
                  kindOf(name_, options_), options_.daemon) {}

    ~Impl() override { endPool(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    Result<> connect() {
        if (engine_.m_sessionUp != 1) return tl::unexpected(detail::noDaemon(engine_));
        if (engine_.RRNAllowPosts() != kOk || engine_.RESendPromptly() != kOk) {
            return tl::unexpected(Error{Errc::NoMemory, "the loop cannot be woken",
                                        detail::connecting(engine_.RRNAddress())});
        }
        engine_.RESetMaxSendRate(options_.sendRate);
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
        signals.manage(&engine_, [this] { engine_.RRNStopLoop(); });
        {
            CVekTimedWorkMgr works(&engine_, 1, kTick.count(), kWorkThreads, nullptr, FALSE);
            for (const auto& work : works_) works.RTWMAddPoll(work.get());
            works.RTWMDistributePolls();
            setLoop(rv_EventManager(engine_.m_session->handle()));
            engine_.REDoIt();
            setLoop(nullptr);
            endPosting();  // a work may wait for what it has posted
        }
        signals.stop();
        return leave();
    }

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override {
        if (replyTo == nullptr) return;
        CVekQryInfo info(subject, nullptr, data, listener);
        const Text text(info.RQIQuery());
        if (!text) return;
        const std::size_t length = strnlen(text.get(), kMostText + 1);
        Asked asked{{text.get(), length},
                    replyTo->subject(),
                    info.RQIVersion() == VEK_TRANS_V1 ? VEK_TRANS_V1 : VEK_TRANS_V0};
        const bool isActive = engine_.REIsActive() == TRUE;
        if (length > kMostText) {
            if (isActive) refuse(asked, kTooLong);
        } else if (isActive) {
            answerLater(std::move(asked));
        } else {
            held_.hold(std::move(asked), std::chrono::steady_clock::now());
        }
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
            if (addTo(transport, record)) continue;
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

    Result<> post(std::function<void()> work) {
        const std::lock_guard guard(gate_);
        if (stopping_) return tl::unexpected(Error{Errc::Ended, {}, "post"});
        posted_.push_back(std::move(work));
        if (posted_.size() == 1) engine_.RRNPost([this] { runPosted(); });
        return {};
    }

    [[nodiscard]] bool isActive() { return engine_.REIsActive() == TRUE; }

    void stop() {
        engine_.RRNPost([this] { engine_.RRNStopLoop(); });
        // At once also while the loop waits for the daemon to come back.
        const std::lock_guard guard(gate_);
        if (loop_ != nullptr) rvevm_Stop(loop_);
    }

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

    bool startAnswering() {
        const Text subject(engine_.RRNDomainSubj(name_.querySubject().c_str()));
        if (!subject) return false;
        begunSubject_ = begunSubject(subject.get());
        if (options_.threads > 0) {
            pool_ = std::make_unique<CVekServPool>(options_.threads, this);
            pool_->RSPLaunchThreads(answerOne);
        }
        return (options_.group.empty() ||
                engine_.RRNAddExService(begunSubject_.c_str(), &begunListener_) == kOk) &&
               engine_.RRNAddService(name_.querySubject().c_str(), this) == kOk;
    }

    void roleChanged(bool active) {
        if (active) {
            for (Asked& asked : held_.take(std::chrono::steady_clock::now())) {
                answerLater(std::move(asked));
            }
        }
        if (role) role(active);
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
        if (engine_.RESendQueueLength() > 2 * options_.mostWaiting) return;
        Reply::State refusal(engine_, asked.version);
        refusal.refuse(Record{{"error", why}});
        static_cast<void>(refusal.send(asked.replySubject));
    }

    void answerLater(Asked asked) {
        const bool isFull = pool_ ? waiting_ >= kMostQuestions : !hasRoom();
        if (isFull) return refuse(asked, kTooMany);
        if (!pool_) return answerQuestion(asked);
        auto item = std::make_unique<Asked>(std::move(asked));
        if (pool_->RSPAddWorkDetail(item.get()) != kOk) return;
        static_cast<void>(item.release());
        ++waiting_;
    }

    static void answerOne(void* item, void* context) {
        const std::unique_ptr<Asked> asked(static_cast<Asked*>(item));
        auto& service = *static_cast<Impl*>(context);
        while (!service.stopping_ && !service.hasRoom()) {
            VekSleep(static_cast<unsigned>(kRoomPoll.count()));
        }
        service.answerQuestion(*asked);
        --service.waiting_;
    }

    // Whether what an answer adds may be queued now.
    bool hasRoom() { return engine_.RESendQueueLength() <= options_.mostWaiting; }

    void answerQuestion(const Asked& asked) {
        Reply::State state(engine_, asked.version);
        Reply reply(state);
        try {
            answer({asked.text, asked.replySubject}, reply);
        } catch (const std::exception& error) {
            reply.refuse(error.what());
        } catch (...) {
            reply.refuse("the service failed");
        }
        // Once the member leaves, the next one answers.
        const std::lock_guard guard(gate_);
        if (stopping_) return;
        if (!options_.group.empty() && state.isLong()) {
            tellBegun(engine_, begunSubject_, asked.replySubject);
        }
        if (state.send(asked.replySubject)) return;
        state.refuse(Record{{"error", "the rows are too large for a message"}});
        static_cast<void>(state.send(asked.replySubject));
    }

    // What is queued goes out, then the group hears that another member is to answer.
    int leave() {
        engine_.RESetRoleCallback({});
        engine_.RESetInActive();
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
        if (!pool_) return;
        pool_->RSPStopThreads();
        while (void* item = pool_->RSPTakeWorkDetail()) delete static_cast<Asked*>(item);
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

    std::mutex gate_;                            // held while something is queued
    std::vector<std::function<void()>> posted_;  // guarded by gate_
    rvevm_Manager loop_ = nullptr;               // guarded by gate_; null while none runs
    std::atomic<bool> stopping_{false};
    std::atomic<int> waiting_{0};

    CVekEngine engine_;
    std::unique_ptr<CVekServPool> pool_;  // its threads end before anything they use
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

Result<> Service::post(std::function<void()> work) {
    return impl_->post(std::move(work));
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
