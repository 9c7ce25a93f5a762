// A loop with a thread of its own runs from the start to the end. One without runs only while a
// call of its thread waits, or in `Client::run`: what the call waits for stops the loop, which
// leaves what else happens to the next call. Another thread that ends it only says so; its own
// thread closes the session.

#include "kvx/ClientLoop.h"

#include <utility>

#include "kvx/NoDaemon.h"
#include "kvx/OneLoop.h"
#include "mom/net/LoopThread.h"
#include "rv/session/rvSessionHooks.h"

namespace kvx::detail {

namespace {

int onLoss(rv_Session, const void*, void* changed) {
    (*static_cast<const std::function<void(bool)>*>(changed))(false);
    return 0;
}

int onReturn(rv_Session, const void*, void* changed) {
    (*static_cast<const std::function<void(bool)>*>(changed))(true);
    return 0;
}

// Rings once.
class Alarm : public RvTimerCallback {
  public:
    Alarm(CVekRvNet& net, unsigned long ms, std::function<void()> ring) : ring_(std::move(ring)) {
        int status = kOk;
        timer_.reset(net.RRNNewTimer(&status, ms, rv_FALSE, this, nullptr));
        if (!timer_) hasRung_ = true;
    }
    void onTimer(RvTimer*) override {
        hasRung_ = true;
        ring_();
    }
    [[nodiscard]] bool hasRung() const { return hasRung_; }

  private:
    const std::function<void()> ring_;
    std::unique_ptr<RvTimer> timer_;
    bool hasRung_ = false;
};

}  // namespace

Result<> ClientLoop::start() {
    claim_ = claimLoop();
    if (!claim_) return tl::unexpected(busy());
    std::promise<Result<>> started;
    auto result = started.get_future();
    try {
        thread_ = std::thread([self = shared_from_this(), promise = std::move(started)]() mutable {
            self->runThread(std::move(promise));
        });
    } catch (const std::system_error& error) {
        return tl::unexpected(Error{Errc::NoMemory, error.what(), "starting the client's thread"});
    }
    return result.get();
}

Result<> ClientLoop::startHere(CVekRvNet* given) {
    claim_ = claimLoop();
    if (!claim_) return tl::unexpected(busy());
    isHere_ = true;
    return open(given);
}

// The thread shares in this object: it is about to end, or the one that calls.
ClientLoop::~ClientLoop() {
    if (thread_.joinable()) isLoopThread() ? thread_.detach() : thread_.join();
}

void ClientLoop::end() {
    if (!isHere_ && !thread_.joinable()) return;
    if (isHere_ && isLoopThread()) {
        wakeCaller();
    } else {
        post([this] { isHere_ ? wakeCaller() : net->RRNStopLoop(); });
    }
    {
        // At once also while the loop waits for the daemon to come back.
        const std::lock_guard guard(mutex_);
        isEnding_ = true;
        const bool isRun = !isHere_ || isRunning_;
        if (open_ != nullptr && isRun && !isLoopThread()) rvevm_Stop(manager_);
    }
    if (isHere_) {
        if (isLoopThread() && !isRunning_) close();
    } else if (!isLoopThread()) {
        waitForEnd();
    }
}

void ClientLoop::runUntil(const std::function<bool()>& isDone) {
    const auto self = shared_from_this();
    begin_ = std::chrono::steady_clock::now();
    isRunning_ = true;
    while (!isEnding() && !isDone()) {
        isWoken_ = false;
        // Not RRNDoIt: that runs the start-up hook of the net, which may be another's.
        rv_RunOnce(net->m_session->handle());
    }
    isRunning_ = false;
    if (isEnding()) close();
}

std::chrono::milliseconds ClientLoop::runsFor() const {
    using std::chrono::milliseconds;
    if (!isHere_) return milliseconds::max();
    return std::chrono::ceil<milliseconds>(std::chrono::steady_clock::now() - begin_);
}

bool ClientLoop::run() {
    if (!isHere_ || !isLoopThread() || !mayWait()) return false;
    runUntil([] { return false; });
    return true;
}

bool ClientLoop::isEnding() {
    const std::lock_guard guard(mutex_);
    return isEnding_ || open_ == nullptr || (isHere_ && net->m_sessionUp != 1);
}

bool ClientLoop::isLost() {
    {
        const std::lock_guard guard(mutex_);
        if (open_ == nullptr || isConnected_) return false;
    }
    return !(isHere_ && isLoopThread() && mayWait() && tryToReach());
}

bool ClientLoop::tryToReach() {
    const Alarm alarm(*net, static_cast<unsigned long>(options.timeout.count()),
                      [this] { wakeCaller(); });
    runUntil([&] { return isConnected_ || alarm.hasRung(); });
    return isConnected_;
}

Connection ClientLoop::connection() {
    const std::lock_guard guard(mutex_);
    if (isConnected_) return {true, address_, {}};
    return {false, address_,
            open_ == nullptr ? "the client has ended" : "it was lost; it is tried again"};
}

bool ClientLoop::post(std::function<void()> work) {
    if (isHere_ && isLoopThread()) return perform(work);
    const std::lock_guard guard(mutex_);
    if (open_ == nullptr || isEnding_) return false;
    if (!isHere_) return open_->RRNPost(std::move(work)) == kOk;
    // The net may live longer than this.
    return open_->RRNPost([self = weak_from_this(), work = std::move(work)] {
        if (const auto loop = self.lock(); loop && loop->net != nullptr) work();
    }) == kOk;
}

bool ClientLoop::perform(const std::function<void()>& work) {
    if (isLoopThread()) {
        if (net == nullptr) return false;
        work();
        flush();
        return true;
    }
    // What is dropped unrun breaks the promise, and the wait ends as well.
    auto done = std::make_shared<std::promise<void>>();
    auto whenDone = done->get_future();
    const bool isPosted = post([&work, promise = std::move(done)] {
        work();
        promise->set_value();
    });
    if (!isPosted) return false;
    whenDone.wait();
    try {
        whenDone.get();
    } catch (const std::future_error&) {
        return false;
    }
    return true;
}

// A loop that does not run sends nothing.
void ClientLoop::flush() const {
    if (!isHere_ || isRunning_ || net == nullptr || !net->m_session) return;
    rv_Flush(net->m_session->handle(), static_cast<unsigned long>(options.timeout.count()));
}

void ClientLoop::send(const std::string& subject, const RvMsg& message) const {
    int status = kOk;
    const std::unique_ptr<RvSender> sender(net->RRNNewSender(&status, subject.c_str(), nullptr));
    if (sender) sender->send(message);
}

std::string ClientLoop::inDomain(std::string_view subject) const {
    std::string text(subject);
    return options.domain.empty() ? text : text + "." + options.domain;
}

void ClientLoop::runThread(std::promise<Result<>> started) {
    Result<> opened = open(nullptr);
    const bool isOpen = opened.has_value();
    started.set_value(std::move(opened));
    if (!isOpen) return;
    net->RRNDoIt();
    close();
}

Result<> ClientLoop::open(CVekRvNet* given) {
    loopThread_ = std::this_thread::get_id();
    net = given;
    auto connected = connect();
    if (!connected) {
        endNet();
        return connected;
    }
    const std::lock_guard guard(mutex_);
    open_ = net;
    manager_ = rv_EventManager(net->m_session->handle());
    return {};
}

Result<> ClientLoop::connect() {
    const auto thread = claimLoopThread(this);
    if (!thread) {
        return tl::unexpected(
            Error{Errc::Busy, "another thread of this process has a network object", "open"});
    }
    if (net == nullptr) {
        const auto latency = static_cast<unsigned long>(options.timeout.count());
        own_ = std::make_unique<CVekClient>(latency, options.domain.c_str(), options.daemon);
        net = own_.get();
    }
    const DaemonAddress address = net->RRNAddress();
    address_ = address.daemon;
    if (net->m_sessionUp != 1 || !net->m_session) return tl::unexpected(noDaemon(*net));
    changed_ = [this](bool isThere) { changeConnection(isThere); };
    const rv_Session session = net->m_session->handle();
    if (net->RRNAllowPosts() != kOk ||
        rv_AddHook(session, RV_HOOK_DISCONNECT, onLoss, &changed_) != 0 ||
        rv_AddHook(session, RV_HOOK_RECONNECT, onReturn, &changed_) != 0) {
        return tl::unexpected(
            Error{Errc::NoMemory, "the loop cannot be woken", connecting(address)});
    }
    isConnected_ = rv_IsConnected(session);
    return {};
}

void ClientLoop::close() {
    {
        const std::lock_guard guard(mutex_);
        if (open_ == nullptr) return;
        open_ = nullptr;
    }
    isConnected_ = false;
    failAll(Errc::Ended);
    tellWatchers([](Watcher& watcher) { watcher.onLoopEnd(); });
    endNet();
}

void ClientLoop::endNet() {
    listeners.clear();
    if (net != nullptr && net->m_session) {
        const rv_Session session = net->m_session->handle();
        rv_RemoveHook(session, RV_HOOK_DISCONNECT, onLoss, &changed_);
        rv_RemoveHook(session, RV_HOOK_RECONNECT, onReturn, &changed_);
    }
    own_.reset();
    net = nullptr;
    claim_.reset();
    gone_.count_down();
}

void ClientLoop::changeConnection(bool isThere) {
    isConnected_ = isThere;
    wakeCaller();
    if (!isThere) failAll(Errc::Lost);
    if (options.onConnection) options.onConnection(connection());
    tellWatchers([&](Watcher& watcher) { watcher.onConnection(isThere); });
}

void ClientLoop::tellWatchers(const std::function<void(Watcher&)>& tell) const {
    const auto now = watchers;
    for (const auto& [watcher, held] : now) tell(*watcher);
}

void ClientLoop::failAll(Errc code) const {
    // Each one leaves the set when it fails.
    while (!waiting.empty()) (*waiting.begin())->fail(code);
}

}  // namespace kvx::detail
