// Everything here runs as the simulation's own code (`Harness`), but the calls into the library
// (`inLibrary`), whose allocations may fail.

#include "tests/sim/Client.h"

#include <algorithm>

#include "rv/message/RvDatum.h"
#include "rv/object/RvListener.h"
#include "rv/object/RvSender.h"
#include "rv/session/rvSessionHooks.h"

namespace kvx::sim {

namespace {

constexpr const char* kDaemon = "tcp:daemon:7500";
constexpr unsigned long kRequestMs = 3'000;
constexpr unsigned long kDispatchMs = 1'000;
constexpr std::size_t kMostEars = 8;
constexpr std::size_t kMostCrowd = 400;
constexpr std::size_t kMostMarkBytes = 5'000;

constexpr std::size_t kDeep = 21;  // bytes of a subject of eleven elements

const std::vector<std::string> kPatterns = {"a.b", "a.c", "a.b.c", "d", "q.x", "a.*",
                                            "a.>", "*.b", ">",     "*", "*.*", "a.*.c"};

// One of many patterns with a few subjects in common.
std::string crowdPattern(unsigned number, bool fits) {
    std::string pattern = fits ? "e" : "f";
    for (; number > 0 || pattern.size() < kDeep; number /= 2)
        pattern.insert(0, number % 2 == 0 ? "e." : "*.");
    return pattern;
}

// Two of them do not fill a queue.
std::size_t markSize() {
    return world->random(std::min(world->ledger.queueLimit / 4, kMostMarkBytes));
}

unsigned nextSender() {
    static unsigned last = 0;
    return ++last;
}

}  // namespace

const std::vector<std::string>& subjects() {
    static const std::vector<std::string> all = {"a.b", "a.c", "a.b.c", "d",
                                                 "q.x", "a.*", ">",     "e.e.e.e.e.e.e.e.e.e.e"};
    return all;
}

void Ear::onData(const char* onSubject, RvSender* replyTo, const RvDatum& data,
                 RvListener* /*from*/) {
    const Harness harness;
    client_.heard(*this, onSubject, replyTo, data);
}

Client::Client(unsigned number, Traits traits)
    : traits_(std::move(traits)),
      program_(world->start("client " + std::to_string(number), [this] { run(); })) {
    if (traits_.isOld) world->network.oldClients.insert(program_.number);
}

template <class Call>
auto Client::inLibrary(Call call) {
    const Charge program(&program_.account);
    return call();
}

void Client::beginCalm(std::size_t mostListens) {
    calm_ = true;
    armed_.reset();
    program_.account.newsBeforeFailure = -1;
    if (ears_.size() > mostListens) post({0, Deed::Leave, 0, 0, 0});
}

void Client::run() {
    const Harness harness;
    if (traits_.synchronous) {
        runByHand();
    } else {
        runLoop();
    }
    leave();
    removeDeadEars();
}

void Client::runLoop() {
    const SocketHandle bell = world->network.open([this] { return ended_ || !mailbox_.empty(); });
    rvevm_Id id = nullptr;
    const rvevm_Callback onBell = [](void*, void* self, int, void*) {
        const Harness harness;
        static_cast<Client*>(self)->obeyNext();
    };
    inLibrary([&] {
        rvevm_Create(&manager_);
        rvevm_AddIO(manager_, &id, static_cast<unsigned>(bell), RVEVM_READ, onBell, this);
        while (!ended_) rvevm_MainLoop(manager_);
    });
    leave();
    inLibrary([&] {
        rvevm_RemoveIO(manager_, id);
        rvevm_Destroy(manager_);
    });
    world->network.close(bell);
}

void Client::runByHand() {
    while (!ended_) {
        if (!mailbox_.empty()) {
            obeyNext();
        } else if (!session_) {
            world->wait([this] { return ended_ || !mailbox_.empty(); }, platform::kForever);
        } else if (!inLibrary([this] { return session_->dispatch(kDispatchMs) == 0; })) {
            leave();
        }
    }
}

void Client::obeyNext() {
    if (mailbox_.empty()) {
        if (ended_ && manager_ != nullptr) rvevm_Stop(manager_);
        return;
    }
    const Action action = mailbox_.front();
    mailbox_.pop_front();
    busy_ = true;
    obey(action);
    removeDeadEars();
    busy_ = false;
}

void Client::obey(const Action& action) {
    world->note(action.text());
    const bool usesSession =
        action.deed == Deed::Listen || action.deed == Deed::Crowd || action.deed == Deed::Publish;
    if (usesSession && !session_ && !calm_) join();
    switch (action.deed) {
        case Deed::Join:
            return join();
        case Deed::Leave:
            return leave();
        case Deed::Listen:
            if (ears_.size() < kMostEars) listen(kPatterns[action.a % kPatterns.size()]);
            return;
        case Deed::Crowd:
            for (unsigned i = 0; i < action.b && ears_.size() < kMostCrowd; ++i)
                listen(crowdPattern(i, action.b < kMostCrowd));
            return;
        case Deed::Cancel:
            if (Ear* ear = anyEar(action.a)) cancel(*ear);
            return;
        case Deed::Publish:
            for (unsigned i = 0; i < action.b; ++i)
                publish(subjects()[action.a % subjects().size()],
                        calm_ ? markSize() : world->random(world->random.oneIn(20) ? 10'000 : 300));
            return;
        case Deed::Request:
            return request(subjects()[action.a % subjects().size()]);
        case Deed::Arm:
            armed_ = action.a;
            return;
        case Deed::FailNext:
            program_.account.newsBeforeFailure = action.a % 20;
            return;
        case Deed::Sleep:
            return platform::sleepMs(action.b);
        default:
            return;
    }
}

void Client::join() {
    if (session_) return;
    rv_Session made = nullptr;
    const int code = inLibrary(
        [&] { return rv_CreateSession(&made, manager_, traits_.service.c_str(), "", kDaemon); });
    world->note("joined: " + std::to_string(code));
    if (code != 0) return;
    if (session_) world->fail("joined twice");
    sender_ = nextSender();
    number_ = 0;
    last_.clear();
    const ipq_Properties properties{traits_.batching ? 1 : 0, traits_.readBudget, 8192};
    inLibrary([&] {
        rv_SetProperty(made, "ipqProperties", &properties);
        session_.emplace(made);
        if (session_->handle() == nullptr) session_.reset();  // without memory
    });
    if (!session_ && rv_IsOpen(made)) world->fail("a session without owner stays open");
    if (traits_.follows) listen("_RVD.INTEREST");
}

void Client::leave() {
    if (!session_) return;
    if (world->random.oneIn(2)) cancelAll();
    inLibrary([this] { session_.reset(); });
    cancelAll();
}

// A cancel may call other listeners, which may make new ones.
void Client::cancelAll() {
    for (std::size_t i = 0; i < ears_.size(); ++i) cancel(*ears_[i]);
}

void Client::listen(const std::string& pattern) {
    if (!isJoined()) return;
    ears_.push_back(std::make_unique<Ear>(*this, pattern));
    Ear& ear = *ears_.back();
    adopt(ear, inLibrary([&] { return session_->newListener(pattern.c_str(), &ear, nullptr); }));
}

// The session may have been closed meanwhile.
void Client::adopt(Ear& ear, RvListener* made) {
    ear.listener = made;
    if (made == nullptr) ear.mayBeCalled = false;
    if (made != nullptr && !session_) cancel(ear);
}

void Client::cancel(Ear& ear) {
    if (ear.listener == nullptr) return;
    RvListener* const deleted = std::exchange(ear.listener, nullptr);
    ear.mayBeCalled = false;
    inLibrary([deleted] { delete deleted; });
}

// Those of listeners that are gone; not while a callback may be on the stack.
void Client::removeDeadEars() {
    std::erase_if(ears_, [](const auto& ear) { return !ear->mayBeCalled; });
}

Ear* Client::anyEar(unsigned which) {
    std::vector<Ear*> alive;
    for (const auto& ear : ears_)
        if (ear->listener != nullptr) alive.push_back(ear.get());
    return alive.empty() ? nullptr : alive[which % alive.size()];
}

bool Client::send(RvSender& sender, std::size_t size) {
    const MessageId id{sender_, ++number_};
    const std::string text = id.text() + " " + std::string(size, '.');
    const RvDatum datum(RVMSG_STRING, 0, text.c_str());
    const bool sent = inLibrary([&] { return sender.send(datum) == 0; });
    world->ledger.sent(id, sent);
    return sent;
}

void Client::publish(const std::string& subject, std::size_t size) {
    if (!isJoined()) return;
    RvSender* const sender = inLibrary([&] { return session_->newSender(subject.c_str()); });
    if (sender == nullptr) return;
    const bool sent = send(*sender, size);
    if (calm_ && sent) marks_.push_back({{sender_, number_}, subject});
    inLibrary([sender] { delete sender; });
}

void Client::request(const std::string& subject) {
    if (!isJoined() || ears_.size() >= kMostEars) return;
    ears_.push_back(std::make_unique<Ear>(*this, ""));
    Ear& ear = *ears_.back();
    const MessageId id{sender_, ++number_};
    const std::string text = id.text() + " request";
    const RvDatum datum(RVMSG_STRING, 0, text.c_str());
    RvListener* const made = inLibrary([&]() -> RvListener* {
        const std::unique_ptr<RvSender> sender(session_->newSender(subject.c_str()));
        if (sender == nullptr) return nullptr;
        return sender->sendRequest(datum, traits_.synchronous ? 0 : kRequestMs, &ear, nullptr);
    });
    world->ledger.sent(id, made != nullptr);
    if (made != nullptr) ear.subject = made->subject();
    adopt(ear, made);
}

void Client::heard(Ear& ear, const char* subject, RvSender* replyTo, const RvDatum& data) {
    const std::string what = program_.name + ", '" + ear.subject + "' on '" + subject + "'";
    if (!ear.mayBeCalled) world->fail("a dead listener was called: " + what);
    if (!session_) world->fail("a listener of a closed session was called: " + what);
    if (!ear.subject.empty() && !hears(ear.subject, subject))
        world->fail("called for another subject: " + what);
    if (!std::string_view(subject).starts_with("_RV")) {
        if (data.type() != RVMSG_STRING) world->fail("another payload: " + what);
        const MessageId id = MessageId::of({static_cast<const char*>(data.data()), data.size()});
        const std::pair from(id.sender, world->ledger.linkOf(id));
        if (ear.last[from] >= id.number) world->fail("heard twice or late: " + id.text());
        if (last_[from] > id.number) world->fail("heard out of order: " + id.text());
        ear.last[from] = last_[from] = id.number;
        if (calm_) ear.heard.insert(id);
        if (replyTo != nullptr) send(*replyTo, 10);
    }
    if (armed_) actInCallback(ear, *std::exchange(armed_, std::nullopt));
}

void Client::actInCallback(Ear& ear, unsigned what) {
    world->note("acts in a callback: " + std::to_string(what % 8));
    switch (what % 8) {
        case 0:
            return cancel(ear);
        case 1:
            if (Ear* other = anyEar(what / 8)) cancel(*other);
            return;
        case 2:
            return leave();
        case 3:
            return publish(subjects()[what / 8 % subjects().size()], 100);
        case 4:
            return listen(kPatterns[what / 8 % kPatterns.size()]);
        case 5:
            return cancelAll();
        case 6:
            leave();
            return join();
        default:
            return platform::sleepMs(2'000);
    }
}

}  // namespace kvx::sim
