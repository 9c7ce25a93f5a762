// The library of the engine has threads of its own: one reads the socket, one delivers. The
// delivering one only appends to `arrived_` and wakes the loop. Its reconnecting is not used: it
// gives up after refused logins, and keeps messages in a buffer of its own. Instead a connection
// that is lost is made anew by the sending thread, which subscribes again before it goes on with
// what waits.
//
// The library's timeout covers the connect and the server's first line only. It waits for ever for
// the TLS handshake, in a blocking read, and for the answer to its login: it ignores its own
// timeout there and reads again, busily. It shows its socket to nobody before that is over, so that
// we cannot end it either: such a server, or a line that is cut right then, holds up the sending
// thread until the system gives up the connection. `stop` leaves it behind.

#include "rvbridge/Engine.h"

#include <nats/nats.h>

#include <array>
#include <cstdlib>
#include <map>
#include <utility>

#include "platform/Text.h"

namespace kvx::bridge {

namespace nats {

template <class Object, void (*destroy)(Object*)>
struct Destroyer {
    void operator()(Object* object) const { destroy(object); }
};
using Options = std::unique_ptr<natsOptions, Destroyer<natsOptions, natsOptions_Destroy>>;
using Message = std::unique_ptr<natsMsg, Destroyer<natsMsg, natsMsg_Destroy>>;
using Subscription =
    std::unique_ptr<natsSubscription, Destroyer<natsSubscription, natsSubscription_Destroy>>;

}  // namespace nats

namespace {

constexpr std::int64_t kConnectMs = 2'000;
constexpr std::int64_t kPingMs = 5'000;
constexpr std::int64_t kWriteMs = 5'000;
constexpr int kMostPings = 2;
constexpr std::int64_t kFlushMs = 2'000;
constexpr std::int64_t kCloseMs = 5'000;

// What went wrong last in this thread, without the library's place: "(conn.c:1905): reason".
std::string textOf(natsStatus status) {
    const char* const last = nats_GetLastError(nullptr);
    std::string text = last == nullptr ? "" : last;
    const auto place = text.find("): ");
    if (text.starts_with('(') && place != std::string::npos) text.erase(0, place + 3);
    if (text.empty()) text = natsStatus_GetText(status);
    // A server that refuses a certificate says so after the handshake, by closing.
    if (text.ends_with("got ''")) {
        text = "the server has closed the connection: it may refuse or lack our certificate";
    }
    return printable(text);
}

// How the engine knows us, and we the engine.
natsStatus secure(natsOptions* options, const EngineSettings& settings) {
    natsStatus status = NATS_OK;
    const auto then = [&status](natsStatus next) {
        if (status == NATS_OK) status = next;
    };
    if (!settings.credentials.empty()) {
        then(natsOptions_SetUserCredentialsFromFiles(options, settings.credentials.c_str(),
                                                     nullptr));
    }
    if (!settings.ca.empty() || !settings.certificate.empty()) {
        then(natsOptions_SetSecure(options, true));
    }
    if (!settings.ca.empty()) {
        then(natsOptions_LoadCATrustedCertificates(options, settings.ca.c_str()));
    }
    if (!settings.certificate.empty()) {
        then(natsOptions_LoadCertificatesChain(options, settings.certificate.c_str(),
                                               settings.key.c_str()));
    }
    return status;
}

// No bridge sends headers, which may be as large as a message.
bool hasHead(natsMsg* message) {
    const char** keys = nullptr;
    int count = 0;
    const natsStatus status = natsMsgHeader_Keys(message, &keys, &count);
    std::free(keys);
    return status != NATS_NOT_FOUND;
}

}  // namespace

std::string wrongIn(const EngineSettings& settings) {
    natsOptions* made = nullptr;
    if (natsOptions_Create(&made) != NATS_OK) return {};  // as `Engine::start` will say
    const nats::Options options(made);
    const natsStatus status = secure(made, settings);
    return status == NATS_OK ? "" : textOf(status);
}

struct Engine::Arrived {
    enum class Kind { Up, Down, Forbidden, Message };
    Kind kind;
    nats::Message message{};
    std::string why{};
    std::size_t mostBytes = 0;
    std::uint64_t subscription = 0;
    std::size_t headBytes = 0;  // of the message, at most
};

struct Engine::Connection {
    explicit Connection(Engine& engine) : owner(engine) {}
    ~Connection() {
        subscriptions.clear();
        if (handle != nullptr) natsConnection_Close(handle);
        natsConnection_Destroy(handle);
    }

    natsStatus setUp() {
        natsOptions* made = nullptr;
        natsStatus status = natsOptions_Create(&made);
        options.reset(made);
        const EngineSettings& settings = owner.settings_;
        std::vector<const char*> urls;
        for (const auto& url : settings.urls) urls.push_back(url.c_str());
        const auto then = [&status](natsStatus next) {
            if (status == NATS_OK) status = next;
        };
        if (status != NATS_OK) return status;
        then(natsOptions_SetServers(made, urls.data(), static_cast<int>(urls.size())));
        then(natsOptions_SetNoRandomize(made, true));
        then(natsOptions_SetName(made, settings.name.c_str()));
        then(natsOptions_SetNoEcho(made, true));
        then(natsOptions_SetSendAsap(made, true));
        then(natsOptions_SetAllowReconnect(made, false));
        then(natsOptions_SetTimeout(made, kConnectMs));
        then(natsOptions_SetPingInterval(made, kPingMs));
        then(natsOptions_SetMaxPingsOut(made, kMostPings));
        then(natsOptions_SetWriteDeadline(made, kWriteMs));
        then(natsOptions_UseGlobalMessageDelivery(made, true));
        then(natsOptions_SetClosedCB(made, onClosed, &owner));
        then(natsOptions_SetErrorHandler(made, onError, &owner));
        then(secure(made, settings));
        return status;
    }

    natsStatus open() {
        const natsStatus status = setUp();
        return status == NATS_OK ? natsConnection_Connect(&handle, options.get()) : status;
    }

    natsStatus subscribe(const std::string& subject, std::uint64_t number) {
        auto ear = std::make_unique<Ear>(Ear{owner, number});
        natsSubscription* made = nullptr;
        const natsStatus status =
            natsConnection_Subscribe(&made, handle, subject.c_str(), onMessage, ear.get());
        if (status != NATS_OK) return status;
        // Fails when the connection is lost already; the library may still use it, for ever.
        (void)natsSubscription_SetOnCompleteCB(made, onComplete, ear.get());
        (void)ear.release();
        subscriptions[subject].reset(made);
        return status;
    }

    // These may come after the end of this object: they only know the engine.
    struct Ear {
        Engine& engine;
        std::uint64_t subscription;
    };
    static void onMessage(natsConnection* connection, natsSubscription*, natsMsg* message,
                          void* closure) {
        const Ear& ear = *static_cast<Ear*>(closure);
        const std::size_t head =
            hasHead(message) ? static_cast<std::size_t>(natsConnection_GetMaxPayload(connection))
                             : 0;
        ear.engine.arrive(
            {Arrived::Kind::Message, nats::Message(message), "", 0, ear.subscription, head});
    }
    static void onComplete(void* ear) { delete static_cast<Ear*>(ear); }
    static void onClosed(natsConnection*, void* closure) {
        Engine& engine = *static_cast<Engine*>(closure);
        const std::lock_guard lock(engine.mutex_);
        engine.mayBeLost_ = true;
        engine.changed_.notify_all();
    }
    static void onError(natsConnection* connection, natsSubscription*, natsStatus status,
                        void* closure) {
        Engine& engine = *static_cast<Engine*>(closure);
        if (status == NATS_NOT_PERMITTED) {
            const char* text = nullptr;
            (void)natsConnection_GetLastError(connection, &text);
            engine.arrive({Arrived::Kind::Forbidden, nullptr, printable(text ? text : "")});
        }
        if (status != NATS_SLOW_CONSUMER) return;
        const std::lock_guard lock(engine.mutex_);
        engine.wasSlow_ = true;
    }

    Engine& owner;
    nats::Options options;
    natsConnection* handle = nullptr;
    std::map<std::string, nats::Subscription> subscriptions;
};

Engine::Engine(rvevm_Manager manager, EngineSettings settings, EngineOwner& owner)
    : manager_(manager), settings_(std::move(settings)), owner_(owner) {}

Engine::~Engine() {
    (void)stop(0);
    if (wakeEvent_ != nullptr) rvevm_RemoveIO(manager_, wakeEvent_);
}

std::string Engine::start() {
    int error = 0;
    std::tie(wakeNear_, wakeFar_) = platform::createSocketPair(error);
    const auto onWake = [](void*, void* closure, int, void*) {
        static_cast<Engine*>(closure)->takeArrived();
    };
    if (!wakeNear_ || rvevm_AddIO(manager_, &wakeEvent_, static_cast<unsigned>(wakeNear_.get()),
                                  RVEVM_READ, onWake, this) != 0) {
        return "no descriptors are left";
    }
    // One thread delivers for all subscriptions, so that the order of messages is the engine's.
    if (nats_Open(-1) != NATS_OK || nats_SetMessageDeliveryPoolSize(1) != NATS_OK) {
        return "the engine's library cannot start";
    }
    sender_ = std::thread([this] {
        send();
        const std::lock_guard lock(mutex_);
        isDone_ = true;
        changed_.notify_all();
    });
    return {};
}

bool Engine::publish(const std::string& subject, std::vector<std::uint8_t> bytes) {
    Order order{Action::Publish, subject, std::move(bytes)};
    const std::lock_guard lock(mutex_);
    if (orderedBytes_ + order.cost() > kMostWaiting) return false;
    give(std::move(order));
    return true;
}

bool Engine::hasRoom() {
    const std::lock_guard lock(mutex_);
    return orderedBytes_ < kMostWaiting / 2;
}

void Engine::subscribe(const std::string& subject) {
    living_.insert(++lastSubscription_);
    const std::lock_guard lock(mutex_);
    wanted_[subject] = lastSubscription_;
    if (takesSubscriptions_) give({Action::Subscribe, subject, {}, lastSubscription_});
}

void Engine::unsubscribe(const std::string& subject) {
    const std::lock_guard lock(mutex_);
    const auto found = wanted_.find(subject);
    if (found == wanted_.end()) return;
    living_.erase(found->second);
    wanted_.erase(found);
    if (takesSubscriptions_) give({Action::Unsubscribe, subject, {}});
}

// With the lock.
void Engine::give(Order order) {
    orderedBytes_ += order.cost();
    orders_.push_back(std::move(order));
    changed_.notify_all();
}

bool Engine::stops() {
    const std::lock_guard lock(mutex_);
    return stops_;
}

// Whether the sending thread is done with its connection.
bool Engine::hasEnded() {
    const std::lock_guard lock(mutex_);
    mayBeLost_ = false;
    return stops_ || natsConnection_IsClosed(connection_->handle);
}

// The sending thread: connects, and then serves that connection until it is lost.
void Engine::send() {
    while (!stops()) {
        std::size_t mostBytes = 0;
        std::string why = connect(mostBytes);
        if (why.empty()) {
            arrive({Arrived::Kind::Up, nullptr, "", mostBytes});
            serveConnection();
            why = "the connection is lost";
        }
        arrive({Arrived::Kind::Down, nullptr, why});
        connection_.reset();
        std::unique_lock lock(mutex_);
        takesSubscriptions_ = false;
        isIdle_ = true;
        changed_.notify_all();
        changed_.wait_for(lock, std::chrono::milliseconds(kPause), [this] { return stops_; });
    }
}

// Makes a connection with all subscriptions. Returns an empty text, or what went wrong.
std::string Engine::connect(std::size_t& mostBytes) {
    connection_ = std::make_unique<Connection>(*this);
    if (const natsStatus status = connection_->open(); status != NATS_OK) return textOf(status);
    const std::int64_t most = natsConnection_GetMaxPayload(connection_->handle);
    if (most < std::int64_t{kLeastBytes}) {
        return "its messages have " + std::to_string(most) + " bytes at most, and " +
               std::to_string(kLeastBytes) + " are needed";
    }
    mostBytes = static_cast<std::size_t>(most);
    std::unordered_map<std::string, std::uint64_t> wanted;
    {
        const std::lock_guard lock(mutex_);
        wanted = wanted_;
        takesSubscriptions_ = true;
        std::erase_if(orders_, [this](const Order& order) {
            const bool isDone = order.action != Action::Publish;  // by `wanted`
            if (isDone) orderedBytes_ -= order.cost();
            return isDone;
        });
    }
    for (const auto& [subject, number] : wanted) {
        const natsStatus status = connection_->subscribe(subject, number);
        if (status != NATS_OK) return textOf(status);
        if (stops()) break;
    }
    return {};
}

void Engine::serveConnection() {
    while (!hasEnded()) {
        std::deque<Order> orders;
        {
            std::unique_lock lock(mutex_);
            isIdle_ = orders_.empty();
            changed_.notify_all();
            changed_.wait(lock, [this] { return !orders_.empty() || stops_ || mayBeLost_; });
            orders.swap(orders_);
            isIdle_ = false;
        }
        for (Order& order : orders) {
            execute(order);
            const std::lock_guard lock(mutex_);
            orderedBytes_ -= order.cost();
            if (stops_) break;  // the line is too slow for what is left
        }
    }
    if (!natsConnection_IsClosed(connection_->handle)) {
        (void)natsConnection_FlushTimeout(connection_->handle, kFlushMs);
    }
}

// What cannot be published, since the connection was lost within these orders, is missed by its
// number.
void Engine::execute(Order& order) {
    switch (order.action) {
        case Action::Publish:
            (void)natsConnection_Publish(connection_->handle, order.subject.c_str(),
                                         order.bytes.data(), static_cast<int>(order.bytes.size()));
            return;
        case Action::Subscribe:
            (void)connection_->subscribe(order.subject, order.subscription);
            return;
        case Action::Unsubscribe:
            connection_->subscriptions.erase(order.subject);
            return;
    }
}

// Any thread. That the connection is there or lost is never dropped: once a second at most.
void Engine::arrive(Arrived arrived) {
    std::size_t bytes = kOverhead + arrived.why.size() + arrived.headBytes;
    if (arrived.message) {
        bytes += static_cast<std::size_t>(natsMsg_GetDataLength(arrived.message.get()));
    }
    const bool isState = arrived.kind == Arrived::Kind::Up || arrived.kind == Arrived::Kind::Down;
    const std::lock_guard lock(mutex_);
    if (stops_) return;
    if (!isState && arrivedBytes_ + bytes > kMostWaiting) {
        hasOverflown_ |= arrived.message != nullptr;
        return;
    }
    arrivedBytes_ += bytes;
    arrived_.push_back(std::move(arrived));
    if (std::exchange(isWoken_, true)) return;
    const std::array<std::byte, 1> wake{};
    (void)platform::sendSome(wakeFar_.get(), wake);
}

void Engine::takeArrived() {
    std::array<std::byte, 16> wakes{};
    (void)platform::receiveSome(wakeNear_.get(), wakes);
    std::vector<Arrived> arrived;
    bool hasOverflown = false;
    bool wasSlow = false;
    {
        const std::lock_guard lock(mutex_);
        arrived.swap(arrived_);
        arrivedBytes_ = 0;
        isWoken_ = false;
        hasOverflown = std::exchange(hasOverflown_, false);
        wasSlow = std::exchange(wasSlow_, false);
    }
    for (const Arrived& next : arrived) {
        switch (next.kind) {
            case Arrived::Kind::Up:
                isUp_ = true;
                mostBytes_ = next.mostBytes;
                owner_.onEngineUp();
                break;
            case Arrived::Kind::Down:
                isUp_ = false;
                owner_.onEngineDown(next.why);
                break;
            case Arrived::Kind::Forbidden:
                owner_.onEngineForbids(next.why);
                break;
            case Arrived::Kind::Message: {
                if (!living_.contains(next.subscription)) break;
                const natsMsg* const message = next.message.get();
                const auto* const data =
                    reinterpret_cast<const std::uint8_t*>(natsMsg_GetData(message));
                owner_.onEngineMessage(
                    natsMsg_GetSubject(message),
                    {data, static_cast<std::size_t>(natsMsg_GetDataLength(message))});
                break;
            }
        }
    }
    if (hasOverflown) owner_.onEngineLoss(LossCause::QueueFull);
    if (wasSlow) owner_.onEngineLoss(LossCause::EngineSlow);
}

bool Engine::stop(platform::Milliseconds timeout) {
    if (!sender_.joinable()) return true;
    {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::milliseconds(timeout),
                          [this] { return isIdle_ && orders_.empty(); });
        stops_ = true;
        arrived_.clear();  // while there is a library to free its messages
        changed_.notify_all();
        const bool isDone = changed_.wait_for(lock, std::chrono::milliseconds(kCloseMs),
                                              [this] { return isDone_; });
        if (!isDone) return false;
    }
    sender_.join();
    return nats_CloseAndWait(kCloseMs) == NATS_OK;  // callbacks know this object
}

}  // namespace kvx::bridge
