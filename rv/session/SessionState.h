#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/Socket.h"
#include "rv/event/HandleTable.h"
#include "rv/link/ipq.h"
#include "rv/session/HookLists.h"
#include "rv/session/ListenTable.h"
#include "rv/session/SessionEvents.h"
#include "rv/session/rv_Session.h"
#include "rv/wire/ControlMessage.h"

namespace kvx::session {

struct SessionState;

/// A parsed daemon text.
struct DaemonEndpoint {
    bool local = true;  ///< no host given: the daemon of this machine, which may be started
    platform::Endpoint endpoint{platform::kLoopbackAddress, 0};
    std::string path{};  ///< of a unix socket, which is local; empty: TCP
};

/// The flavour that a session announces.
struct FlavourRecord {
    int id = 0;
    std::optional<std::string> name;
    std::optional<std::string> ticket;
    int key = 0;
    int flags = 0;

    /// A view into this record.
    [[nodiscard]] wire::Flavour view() const;
};

/// The subject that a session published on last, encoded: the next message is often on the same.
class PublishedSubject {
  public:
    /// The encoded form of a subject that user code may publish on, valid until the next call; null
    /// for any other text.
    [[nodiscard]] const std::uint8_t* encode(const char* text);

  private:
    char text_[wire::kSubjectCapacity] = {};  // "" for none
    std::uint8_t encoded_[wire::kSubjectCapacity];
};

/// The states of a session, in order; never goes back.
enum class Life : std::uint8_t {
    Open,
    Closing,  ///< the close hooks run and can still send
    Closed    ///< no callback is called; freed when the last `Entered` is destroyed
};

/// The sessions of the process by handle. A session is found from its creation until `rv_Close` has
/// run the close hooks.
extern constinit event::HandleTable<SessionState> openSessions;

/// A session's state. The session's thread only.
struct SessionState final : link::LinkHost, event::Handle<SessionState> {
    /// Throws `std::bad_alloc`.
    explicit SessionState(rvevm_Manager runsOn)
        : Handle(openSessions, this), manager(runsOn), events(this) {}

    /// The handle given to user code.
    [[nodiscard]] rv_Session handle() const { return static_cast<rv_Session>(get()); }

    [[nodiscard]] rvevm_Manager linkManager() const override { return manager; }
    [[nodiscard]] ipq_Properties linkProperties() const override { return properties; }

    // Constant after creation.
    rvevm_Manager const manager;  // null: synchronous
    bool sharesManager = false;   // holds a use of the process's shared manager
    std::int64_t created = 0;     // seconds since the epoch
    unsigned long identity = 0;   // unique among this process's sessions
    std::string user;
    std::string service;
    std::string network;
    std::string daemon;
    DaemonEndpoint address;
    FlavourRecord flavour;
    wire::OwnedMessage noMemoryAdvisory;  // deliverable without allocating

    // The connection.
    ipq_Properties properties{};
    rvevm_Id reconnectTimer = nullptr;
    std::optional<platform::Milliseconds> reconnectedAt;  // on the monotonic clock
    std::optional<platform::Milliseconds> roundBegin;     // of a round of attempts to reconnect
    unsigned shortLinks = 0;          // consecutive ones that broke soon after a reconnect
    bool isRefusalTold = false;       // by an advisory, since the link was lost
    std::uint32_t clientAddress = 0;  // as the daemon reported it, network byte order
    std::uint16_t clientPort = 0;     // likewise
    std::string name;                 // empty until the first handshake
    std::vector<std::string> formerNames;
    unsigned long fastProducerConditions = 0;

    PublishedSubject published;

    // Listening.
    long listenCounter = 1;
    ListenTable listens;
    rv_Listener control = nullptr;

    // Delivering.
    std::deque<wire::OwnedMessage> pending;  // arrived while a delivery ran
    bool noMemoryPending = false;
    bool delivering = false;

    int entered = 0;  // number of `Entered` scopes on the stack
    bool inLoop = false;
    HookLists hooks;
    SessionEvents events;

    [[nodiscard]] bool isOpen() const { return life_ == Life::Open; }
    [[nodiscard]] bool isClosed() const { return life_ == Life::Closed; }
    /// For `rv_Close` only.
    void moveOn(Life next) { life_ = next; }

    /// The link; null while disconnected.
    [[nodiscard]] ipq_Queue queue() const { return queue_; }
    void adoptQueue(ipq_Queue queue) { queue_ = queue; }
    /// The link, for the caller to close; calls from then on find none.
    [[nodiscard]] ipq_Queue takeQueue() { return std::exchange(queue_, nullptr); }

  private:
    Life life_ = Life::Open;
    ipq_Queue queue_ = nullptr;
};

/// Null for a handle that is null, closed or foreign. Any thread.
[[nodiscard]] inline SessionState* find(rv_Session handle) {
    return openSessions.find(handle);
}

}  // namespace kvx::session
