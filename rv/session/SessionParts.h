#pragma once

#include <cstdint>
#include <string>

#include "rv/session/SessionState.h"

/// Functions that the files of this room share. Codes are session codes.
namespace kvx::session {

/// Keeps the session's memory while one of its callbacks may run: a session closed meanwhile is
/// freed when its last `Entered` is destroyed, and must not be used after that.
class Entered {
  public:
    explicit Entered(SessionState& session) : session_(session) { ++session_.entered; }
    ~Entered();
    Entered(const Entered&) = delete;
    Entered& operator=(const Entered&) = delete;

  private:
    SessionState& session_;
};

/// Session.cpp: the link properties of sessions created later. Any thread.
void setProcessLinkProperties(const ipq_Properties& properties);

/// Connect.cpp: reads "tcp:[host:]port", and resolves the host, which may block, or "unix:/path".
/// Nothing when the text has another form or the host is unknown. A non-numeric port is 0.
[[nodiscard]] std::optional<DaemonEndpoint> parseDaemon(const char* text);
/// A non-blocking socket to connect to such an address; on failure returns an empty one and sets
/// `error`.
[[nodiscard]] platform::Socket newSocketFor(const DaemonEndpoint& address, int& error);
/// Connects such a socket within `limit`. Returns 0 or a socket error number.
[[nodiscard]] int connectWithin(const platform::Socket& socket, const DaemonEndpoint& address,
                                platform::Milliseconds limit);
/// The text of a socket error number, for people.
[[nodiscard]] std::string socketText(int error);
/// Connects; on success the session has a queue.
[[nodiscard]] int connectLink(SessionState& session);

/// Said of a daemon that answers the introduction with 27.
inline constexpr const char* kNotAllowed =
    "the daemon does not allow this user or this network address";
/// Handshake.cpp: connects, introduces the session and announces its listens.
[[nodiscard]] int connectAndIntroduce(SessionState& session);

/// Reconnect.cpp
void linkLost(SessionState& session);
void watchLink(SessionState& session);
/// Whether a signal waits for the loop, which the present round of attempts to reconnect blocks.
[[nodiscard]] bool isCutShort(const SessionState& session);

/// The prefix of the inboxes under a name: "_INBOX.<name>.".
[[nodiscard]] inline std::string inboxPrefix(const std::string& name) {
    return std::string(kInboxElement) + "." + name + ".";
}

/// Listen.cpp: an inbox under the session's name; 21 while it has none.
[[nodiscard]] int addInbox(SessionState& session, rv_Listener* listener, rv_DataCallback callback,
                           void* closure, bool textSubjects);
/// The same for an inbox whose deliveries are ignored.
[[nodiscard]] int addPrivateInbox(SessionState& session, rv_Listener* listener);
[[nodiscard]] wire::Built listenMessage(SessionState& session, const ListenRecord& record);

/// Publish.cpp: queues a built message on the link, and handles a failure.
[[nodiscard]] int queueMessage(SessionState& session, wire::OwnedMessage message);
/// The same with a copy of a short message.
[[nodiscard]] int queueMessage(SessionState& session, wire::Bytes message);
/// Publishes without checking for reserved subjects.
[[nodiscard]] int publish(SessionState& session, SubjectView subject, const char* reply,
                          const wire::Payload& payload);

/// Deliver.cpp: delivers now or, inside a delivery, after it; copies the bytes in that case.
void deliver(SessionState& session, const wire::Envelope& message);
void deliverNoMemory(SessionState& session);
/// Sets the link's callbacks: messages, and a lack of memory, are delivered to the listeners.
void deliverFromLink(SessionState& session);
/// A text field of a message; null when it is absent, empty, not terminated or not a string.
[[nodiscard]] const char* textField(const void* message, const char* name);

[[nodiscard]] int deliverLocally(SessionState& session, SubjectView subject, const char* reply,
                                 const wire::Payload& payload);

/// Advisories.cpp
void announceDisconnect(SessionState& session);
/// Once until the session is connected again.
void announceRefusal(SessionState& session);
void announceStarvation(SessionState& session, std::uint32_t latenessMs);
void announceFastProducer(SessionState& session, const char* advisoryClass);

[[nodiscard]] inline wire::Bytes bytesOf(SubjectView subject) {
    return {static_cast<const std::uint8_t*>(subject.data()), subject.length()};
}

/// The session code of a failed build: 20 without memory and for a payload of size 0 that cannot be
/// computed, 3 for any other invalid payload.
[[nodiscard]] int codeOfBuild(int messageCode, bool sizeLeftOpen = false);

}  // namespace kvx::session
