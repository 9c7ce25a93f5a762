#include "kvx/ClientLoop.h"

#include <utility>

#include "kvx/OneLoop.h"
#include "rv/session/rvSessionHooks.h"

namespace kvx::detail {

Result<> ClientLoop::start() {
    claim_ = claimLoop();
    if (!claim_) return tl::unexpected(busy());
    std::promise<Result<>> started;
    auto result = started.get_future();
    try {
        thread_ = std::thread([self = shared_from_this(), promise = std::move(started)]() mutable {
            self->run(std::move(promise));
        });
    } catch (const std::system_error& error) {
        return tl::unexpected(Error{Errc::NoMemory, error.what(), "starting the client's thread"});
    }
    return result.get();
}

// The thread shares in this object: it is about to end, or the one that calls.
ClientLoop::~ClientLoop() {
    if (thread_.joinable()) isLoopThread() ? thread_.detach() : thread_.join();
}

void ClientLoop::end() {
    if (!thread_.joinable()) return;
    post([this] { net->RRNStopLoop(); });
    {
        // At once also while the loop waits for the daemon to come back.
        const std::lock_guard guard(mutex_);
        if (open_ != nullptr && !isLoopThread()) rvevm_Stop(manager_);
    }
    if (!isLoopThread()) waitForEnd();
}

bool ClientLoop::isLost() {
    const std::lock_guard guard(mutex_);
    return open_ != nullptr && !isConnected_;
}

bool ClientLoop::post(std::function<void()> work) {
    const std::lock_guard guard(mutex_);
    return open_ != nullptr && open_->RRNPost(std::move(work)) == kOk;
}

bool ClientLoop::perform(const std::function<void()>& work) {
    if (isLoopThread()) {
        work();
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

std::string ClientLoop::inDomain(std::string_view subject) const {
    std::string text(subject);
    return options.domain.empty() ? text : text + "." + options.domain;
}

Result<> ClientLoop::connect() {
    const auto latency = static_cast<unsigned long>(options.timeout.count());
    net = std::make_unique<CVekClient>(latency, options.domain.c_str(), options.daemon);
    if (net->m_sessionUp != 1 || !net->m_session) {
        return tl::unexpected(noDaemon(*net));
    }
    const rv_Session session = net->m_session->handle();
    const auto lost = [](rv_Session, const void*, void* loop) {
        static_cast<ClientLoop*>(loop)->changeConnection(false);
        return 0;
    };
    const auto back = [](rv_Session, const void*, void* loop) {
        static_cast<ClientLoop*>(loop)->changeConnection(true);
        return 0;
    };
    if (net->RRNAllowPosts() != kOk || rv_AddHook(session, RV_HOOK_DISCONNECT, lost, this) != 0 ||
        rv_AddHook(session, RV_HOOK_RECONNECT, back, this) != 0) {
        return tl::unexpected(
            Error{Errc::NoMemory, "the loop cannot be woken", connecting(net->RRNAddress())});
    }
    isConnected_ = rv_IsConnected(session);
    return {};
}

void ClientLoop::run(std::promise<Result<>> started) {
    loopThread_ = std::this_thread::get_id();
    if (auto connected = connect(); connected) {
        runConnected(std::move(started));
    } else {
        endNet();
        started.set_value(std::move(connected));
    }
}

void ClientLoop::endNet() {
    listeners.clear();
    net.reset();
    claim_.reset();
    gone_.count_down();
}

void ClientLoop::runConnected(std::promise<Result<>> started) {
    {
        const std::lock_guard guard(mutex_);
        open_ = net.get();
        manager_ = rv_EventManager(net->m_session->handle());
    }
    started.set_value({});
    net->RRNDoIt();
    {
        const std::lock_guard guard(mutex_);
        open_ = nullptr;
    }
    isConnected_ = false;
    failAll(Errc::Ended);
    endNet();
}

void ClientLoop::changeConnection(bool isThere) {
    isConnected_ = isThere;
    if (!isThere) failAll(Errc::Lost);
    if (options.onConnection) options.onConnection(isThere);
}

void ClientLoop::failAll(Errc code) const {
    // Each one leaves the set when it fails.
    while (!waiting.empty()) (*waiting.begin())->fail(code);
}

}  // namespace kvx::detail
