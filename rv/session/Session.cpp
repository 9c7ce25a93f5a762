// A session's life cycle: created, found by its handle, entered, closed.
//
// A handle is a token in the table of open sessions and is never reused, so a closed handle stays
// invalid. Closing has two steps. `rv_Close` removes the handle from the table, closes the link and
// removes every event; from then on no callback of the session is called. The memory is freed at
// once or, when one of the session's callbacks is on the stack, when the last `Entered` is
// destroyed.

#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

#include "platform/Clock.h"
#include "platform/Process.h"
#include "rv/error/rvAdvisory.h"
#include "rv/error/rvCodes.h"
#include "rv/event/EventManagerExtras.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

constinit event::HandleTable<SessionState> openSessions;
static_assert(std::is_trivially_destructible_v<decltype(openSessions)>,
              "sessions in static storage are closed after main");

namespace {

constexpr const char* kNoDaemon = "-";
constexpr std::size_t kMaxUserName = 63;  // characters

unsigned long nextIdentity() {
    static std::atomic<unsigned long> last{0};
    return ++last;
}

// Never destroyed: sessions may be opened while the process ends.
const std::string& processUser() {
    static const auto& user = *new std::string(platform::userName().substr(0, kMaxUserName));
    return user;
}

struct ProcessDefaults {
    std::mutex lock;
    FlavourRecord flavour;
    ipq_Properties link = link::kDefaultProperties;
};

// Never destroyed: sessions may be opened while the process ends.
ProcessDefaults& processDefaults() {
    static auto& defaults = *new ProcessDefaults;
    return defaults;
}

std::optional<std::string> copyOf(const char* text) {
    return text == nullptr ? std::nullopt : std::optional<std::string>(text);
}

const char* textOrNull(const std::optional<std::string>& text) {
    return text ? text->c_str() : nullptr;
}

std::string textOr(const char* text, const char* otherwise) {
    return text == nullptr || *text == '\0' ? otherwise : text;
}

int buildNoMemoryAdvisory(SessionState& session) {
    const auto subject = Subject::fromText(advisory::kNoMemorySubject);
    if (!subject) return session_code::kNoMemory;
    wire::Built built = wire::buildData(bytesOf(*subject), nullptr, session.flavour.id, {});
    session.noMemoryAdvisory = std::move(built.message);
    return built.code == 0 ? session_code::kOk : session_code::kNoMemory;
}

void adoptProcessDefaults(SessionState& session) {
    const std::scoped_lock guard(processDefaults().lock);
    session.flavour = processDefaults().flavour;
    session.properties = processDefaults().link;
}

int fill(SessionState& session, const char* service, const char* network, const char* daemon) {
    session.created = platform::wallSeconds();
    session.identity = nextIdentity();
    session.user = processUser();
    session.service = textOr(service, "");
    session.network = textOr(network, "");
    session.daemon = textOr(daemon, wire::kDefaultDaemon);
    adoptProcessDefaults(session);
    if (const int code = buildNoMemoryAdvisory(session); code != 0) return code;
    return session.manager == nullptr ? session_code::kOk : session.events.start(session.manager);
}

int connectFirst(SessionState& session) {
    if (session.daemon == kNoDaemon) return session_code::kOk;
    const auto address = parseDaemon(session.daemon.c_str());
    if (!address) return session_code::kDaemonNotFound;
    session.address = *address;
    return connectAndIntroduce(session);
}

void release(SessionState* session) {
    session->hooks.run(RV_HOOK_RELEASE, session->handle(), nullptr);
    rvevm_Manager shared = session->sharesManager ? session->manager : nullptr;
    delete session;
    if (shared != nullptr) event::releaseSharedManager(shared);
}

void closeLink(SessionState& session) {
    if (session.queue() != nullptr) ipq_Close(session.takeQueue(), true);
    session.events.stop();
    session.reconnectTimer = nullptr;
}

int create(rv_Session* out, rvevm_Manager manager, bool sharesManager, const char* service,
           const char* network, const char* daemon) {
    try {
        auto session = std::make_unique<SessionState>(manager);
        int code = fill(*session, service, network, daemon);
        if (code == 0) code = connectFirst(*session);
        if (code != 0) return code;
        session->sharesManager = sharesManager;
        *out = session.release()->handle();
        return session_code::kOk;
    } catch (const std::bad_alloc&) {
        return session_code::kNoMemory;
    }
}

}  // namespace

wire::Flavour FlavourRecord::view() const {
    return {id, textOrNull(name), textOrNull(ticket), key, flags};
}

void setProcessLinkProperties(const ipq_Properties& properties) {
    const std::scoped_lock guard(processDefaults().lock);
    processDefaults().link = properties;
}

Entered::~Entered() {
    if (--session_.entered == 0 && session_.isClosed()) release(&session_);
}

int codeOfBuild(int messageCode, bool sizeLeftOpen) {
    switch (messageCode) {
        case message_code::kOk:
            return session_code::kOk;
        case message_code::kNoRoom:
            return session_code::kNoMemory;
        case message_code::kInvalidArgument:
            return sizeLeftOpen ? session_code::kNoMemory : session_code::kInvalidArgument;
        default:
            return session_code::kInvalidArgument;
    }
}

}  // namespace kvx::session

namespace session = kvx::session;
namespace session_code = kvx::session_code;
namespace event_code = kvx::event_code;
namespace event = kvx::event;

bool rv_IsOpen(rv_Session handle) {
    return session::find(handle) != nullptr;
}

const char* rv_SessionName(rv_Session handle) {
    const session::SessionState* const session = session::find(handle);
    return session != nullptr ? session->name.c_str() : "";
}

bool rv_IsConnected(rv_Session handle) {
    const session::SessionState* const session = session::find(handle);
    return session != nullptr && session->queue() != nullptr;
}

int rv_Flavor(int id, const char* name, const char* ticket, int key, int flags) {
    if (id == 0) return session_code::kVersionMismatch;
    try {
        session::FlavourRecord record{id, session::copyOf(name), session::copyOf(ticket), key,
                                      flags};
        const std::scoped_lock guard(session::processDefaults().lock);
        session::processDefaults().flavour = std::move(record);
    } catch (const std::bad_alloc&) {
        return session_code::kNoMemory;
    }
    return session_code::kOk;
}

int rv_CreateSession(rv_Session* session, rvevm_Manager manager, const char* service,
                     const char* network, const char* daemon) {
    if (session == nullptr) return session_code::kInvalidArgument;
    *session = nullptr;
    return session::create(session, manager, false, service, network, daemon);
}

int rv_Open(rv_Session* session, const char* service, const char* network, const char* daemon) {
    if (session == nullptr) return session_code::kInvalidArgument;
    *session = nullptr;
    int eventCode = 0;
    rvevm_Manager manager = event::acquireSharedManager(eventCode);
    if (manager == nullptr)
        return eventCode == event_code::kResourcesExceeded ? session_code::kNoMemory
                                                           : session_code::kInitFailed;
    const int code = session::create(session, manager, true, service, network, daemon);
    if (code != 0) event::releaseSharedManager(manager);
    return code;
}

int rv_Close(rv_Session handle) {
    session::SessionState* const session = session::find(handle);
    if (session == nullptr || !session->isOpen()) return session_code::kInvalidSession;
    const session::Entered entered(*session);
    session->moveOn(session::Life::Closing);
    session->hooks.run(RV_HOOK_CLOSE, handle, nullptr);
    session->retire();
    session->moveOn(session::Life::Closed);
    session::closeLink(*session);
    if (session->inLoop) rvevm_Stop(session->manager);
    return session_code::kOk;
}

rvevm_Manager rv_EventManager(rv_Session handle) {
    const session::SessionState* const session = session::find(handle);
    return session != nullptr ? session->manager : nullptr;
}
