#pragma once

#include <cstdint>
#include <string>

#include "rv/session/SessionState.h"

/// What the files of this room call across each other. Codes are session codes.
namespace kvx::session {

/// Keeps the session's memory while one of its callbacks may run: a close that is requested
/// meanwhile is carried out when the last `Entered` of the session goes. Nothing of the session may
/// be touched after that.
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

/// Connect.cpp: reads "tcp:[host:]port" and resolves the host, which may block. Nothing when the
/// text has another form or the host is unknown. A port that is no number is 0.
[[nodiscard]] std::optional<DaemonAddress> parseDaemon(const char* text);
/// Makes the link; on success the session has a queue.
[[nodiscard]] int connectLink(SessionState& session);

/// Handshake.cpp: connects, introduces the session and announces its listens.
[[nodiscard]] int connectAndIntroduce(SessionState& session);

/// Reconnect.cpp
void linkLost(SessionState& session);
void watchLink(SessionState& session);
/// Whether a signal waits for the loop, which the present round of attempts to reconnect blocks.
[[nodiscard]] bool isCutShort(const SessionState& session);

/// What the inboxes under a name begin with: "_INBOX.<name>.".
[[nodiscard]] inline std::string inboxPrefix(const std::string& name) {
    return std::string(kInboxElement) + "." + name + ".";
}

/// Listen.cpp: an inbox under the session's name; 21 while it has none.
[[nodiscard]] int addInbox(SessionState& session, rv_Listener* listener, rv_DataCallback callback,
                           void* closure, bool textSubjects);
/// The same for an inbox whose deliveries are ignored.
[[nodiscard]] int addPrivateInbox(SessionState& session, rv_Listener* listener);
[[nodiscard]] wire::Built listenMessage(SessionState& session, const ListenRecord& record);

/// Publish.cpp: hands a built message to the connection, with all that follows from a failure.
[[nodiscard]] int queueMessage(SessionState& session, wire::OwnedMessage message);
/// Publishes without asking whether the subject is reserved.
[[nodiscard]] int publish(SessionState& session, SubjectView subject, const char* reply,
                          const wire::Payload& payload);

/// Deliver.cpp: delivers now or, inside a delivery, after it. The bytes are copied when they have
/// to wait.
void deliver(SessionState& session, wire::Bytes message);
void deliverNoMemory(SessionState& session);
/// Lets the link's messages, and its lack of memory, come to the listeners.
void deliverFromLink(SessionState& session);
/// A text field of a message; null when it is absent, empty, not terminated or no string.
[[nodiscard]] const char* textField(const void* message, const char* name);

[[nodiscard]] int deliverLocally(SessionState& session, SubjectView subject, const char* reply,
                                 const wire::Payload& payload);

/// Advisories.cpp
void announceDisconnect(SessionState& session);
void announceStarvation(SessionState& session, std::uint32_t latenessMs);
void announceFastProducer(SessionState& session, const char* advisoryClass);

[[nodiscard]] inline wire::Bytes bytesOf(SubjectView subject) {
    return {static_cast<const std::uint8_t*>(subject.data()), subject.length()};
}

/// The session code of a message that could not be built: 20 without memory and for a payload whose
/// size was left open and cannot be worked out, 3 for any other payload that makes no message.
[[nodiscard]] int codeOfBuild(int messageCode, bool sizeLeftOpen = false);

}  // namespace kvx::session
