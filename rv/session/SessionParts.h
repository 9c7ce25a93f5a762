#pragma once

#include <cstdint>
#include <string_view>

#include "rv/session/SessionState.h"

/// What the files of this room call across each other. Codes are session codes.
namespace kvx::session {

/// Keeps the session's memory while one of its callbacks may run: a close that is requested
/// meanwhile is carried out when the last `Entered` of the session goes. Nothing of the session may
/// be touched after that.
class Entered {
  public:
    explicit Entered(rv_Session_& session) : session_(session) { ++session_.entered; }
    ~Entered();
    Entered(const Entered&) = delete;
    Entered& operator=(const Entered&) = delete;

  private:
    rv_Session_& session_;
};

/// Session.cpp
[[nodiscard]] inline bool isClosing(const rv_Session_& session) {
    return session.closeRequested;
}
[[nodiscard]] inline SessionEvents& eventsOf(rv_Session_& session) {
    return session.events;
}
[[nodiscard]] int create(rv_Session* out, rvevm_Manager manager, bool sharesManager,
                         const char* service, const char* network, const char* daemon);

/// Connect.cpp: makes the link; on success the session has a queue.
[[nodiscard]] int connectLink(rv_Session_& session);

/// Handshake.cpp: connects, introduces the session and announces its listens.
[[nodiscard]] int connectAndIntroduce(rv_Session_& session);

/// Reconnect.cpp
void linkLost(rv_Session_& session);
void watchLink(rv_Session_& session);

/// Listen.cpp: an inbox under the session's name; 21 while it has none.
[[nodiscard]] int addInbox(rv_Session_& session, rv_Listener* listener, rv_DataCallback callback,
                           void* closure, bool textSubjects);
/// The same for an inbox whose deliveries are ignored.
[[nodiscard]] int addPrivateInbox(rv_Session_& session, rv_Listener* listener);
[[nodiscard]] wire::Built listenMessage(rv_Session_& session, const ListenRecord& record);

/// Publish.cpp: hands a built message to the connection, with all that follows from a failure.
[[nodiscard]] int queueMessage(rv_Session_& session, wire::OwnedMessage message);
/// Publishes without asking whether the subject is reserved.
[[nodiscard]] int publish(rv_Session_& session, SubjectView subject, const char* reply,
                          const wire::Payload& payload);

/// Deliver.cpp: delivers now or, inside a delivery, after it. The bytes are copied when they have
/// to wait.
void deliver(rv_Session_& session, wire::Bytes message);
void deliverNoMemory(rv_Session_& session);

[[nodiscard]] int deliverLocally(rv_Session_& session, SubjectView subject, const char* reply,
                                 const wire::Payload& payload);

/// Advisories.cpp
void announceDisconnect(rv_Session_& session);
void announceStarvation(rv_Session_& session, std::uint32_t latenessMs);
void announceFastProducer(rv_Session_& session, const char* advisoryClass);

[[nodiscard]] inline wire::Bytes bytesOf(SubjectView subject) {
    return {static_cast<const std::uint8_t*>(subject.data()), subject.length()};
}

/// The session code of a message that could not be built.
[[nodiscard]] int codeOfBuild(int messageCode);

}  // namespace kvx::session
