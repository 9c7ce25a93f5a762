// Advisories, and why messages are lost and connections end. A cause or reason without a case here
// does not compile.

#include "rv/error/rvAdvisory.h"
#include "rv/error/rvReasons.h"
#include "tools/kvx/Explanations.h"

namespace kvx::tool::explaining {

namespace {

struct Explained {
    const char* why;
    const char* mend;
};

struct ExplainedAdvisory : Explained {
    const char* subject;
};

constexpr ExplainedAdvisory kAdvisories[] = {
    {{"The session had no memory for an internal message or timer. It goes on, but something was "
      "not sent, received or fired.",
      "Look at the memory of the process and its limits."},
     advisory::kNoMemorySubject},
    {{"The connection to the daemon is lost. The session reconnects at once and then every 15 "
      "seconds, and announces its listens again; what others send meanwhile is missing.",
      "Look at the daemon's log, which says why it closed the session, if it did; 'kvx doctor'."},
     advisory::kDisconnectedSubject},
    {{"A daemon that was started again does not allow this process's user or network address "
      "(error 27). It comes once; the session asks again every 15 seconds.",
      "Add the user or network to -allow-user or -allow of rvd, or end the process."},
     advisory::kRefusedSubject},
    {{"A timer of the session fired more than 5,000 ms late (\"fireoffset\"): a callback kept the "
      "loop busy, or the process stood still.",
      "Move long work out of the callbacks, to a thread pool; look at the machine's load."},
     advisory::kStarvationSubject},
    {{"1,000 or more messages wait in the link to the daemon. It comes for one of a hundred such "
      "sends.",
      "Send more slowly, or let the loop run in between: it writes the queue."},
     advisory::kFastProducerWarnSubject},
    {{"The link to the daemon was full: a message was refused (rv_Send returns 20), or another "
      "dropped. It comes for one of a hundred such sends.",
      "Send more slowly, look at the results of the sends, and let the loop run in between."},
     advisory::kFastProducerErrorSubject},
    {{"Messages for this session were lost: \"lost\" and \"bytes\" say how many, \"cause\" why. It "
      "comes from rvd, ahead of what follows, whether or not the session listens.",
      "Explain the cause: 'kvx explain CAUSE'. Ask again for what is missing."},
     advisory::kDataLossSubject},
};

constexpr Explained explanationFor(LossCause cause) {
    switch (cause) {
        case LossCause::SlowReader:
            return {
                "_RV.WARN.SYSTEM.DATALOSS: the session reads too slowly; more than rvd's "
                "-queue-limit waited for it, and the oldest were dropped.",
                "Let its callbacks return sooner, or listen to less; raise -queue-limit for "
                "bursts."};
        case LossCause::Memory:
            return {
                "_RV.WARN.SYSTEM.DATALOSS: what waits for all sessions reached rvd's -memory, and "
                "this one held most. With 0 messages lost it was ended.",
                "Find the sessions that do not keep up in rvd's log; raise -memory."};
        case LossCause::TooLarge:
            return {
                "_RV.WARN.SYSTEM.DATALOSS: a message is larger than the session's whole queue "
                "(rvd's -queue-limit).",
                "Send smaller messages, or raise -queue-limit above the largest."};
        case LossCause::Patterns:
            return {
                "_RV.WARN.SYSTEM.DATALOSS: the session's wildcard listens took more than 1,024 "
                "steps to match one message, and rvd ended it.",
                "Use fewer patterns with wildcards at different places; one with > for many."};
        case LossCause::Listens:
            return {
                "_RV.WARN.SYSTEM.DATALOSS: the session wanted to listen to more than 262,144 "
                "different subjects, and rvd ended it.",
                "Listen to a pattern instead of many subjects; cancel what is not used."};
        case LossCause::Link:
            return {
                "_RV.WARN.SYSTEM.DATALOSS: messages of another host were lost on the way between "
                "the bridges.",
                "See 'kvx hosts' and the log of rvbridge for the cause there."};
    }
    return {"", ""};
}

constexpr Explained explanationFor(CloseReason reason) {
    switch (reason) {
        case CloseReason::PeerClosed:
            return {"rvd's log: the client closed its session in good order.", "Nothing."};
        case CloseReason::BadGreeting:
            return {"rvd's log: the first bytes of a connection are not those of a bus client.",
                    "Find out what connects there: a browser, a port scan, a wrong port."};
        case CloseReason::BadParameters:
            return {
                "rvd's log: a client wants another queue than the daemon has; its session fails "
                "with code 1.",
                "Use clients of this system."};
        case CloseReason::BadFrame:
            return {"rvd's log: what a client sends cannot be cut into messages.",
                    "Look at that client: it is none of this system, or damages memory."};
        case CloseReason::NotAllowed:
            return {
                "rvd's log: rvd allows certain networks or users only, and the client is none of "
                "them; it gets error 27.",
                "Find out who connects; add it to -allow or -allow-user if it should."};
        case CloseReason::NoInit:
            return {"rvd's log: a client's first message was not its introduction.",
                    "Use clients of this system."};
        case CloseReason::TooMuchAtOnce:
            return {"rvd's log: a client sent more than 4,096 bytes before its introduction.",
                    "Use clients of this system; shorten service and network."};
        case CloseReason::TooManyListens:
            return {"rvd's log: the session wanted to listen to more than 262,144 subjects.",
                    "Listen to a pattern instead; cancel what is not used."};
        case CloseReason::TooManyPatterns:
            return {"rvd's log: the session's wildcard listens cost one message too much.",
                    "Use fewer patterns with wildcards at different places."};
        case CloseReason::OutOfMemory:
            return {
                "rvd's log: the limit of -memory was reached, and this session held most, nothing "
                "of which could be dropped.",
                "Look at what that session reads and listens to; raise -memory."};
        case CloseReason::TimedOut:
            return {
                "rvd's log: no introduction within 10 seconds, or nothing received and nothing "
                "taken for 10 minutes although a keepalive was sent.",
                "Let the process run its loop: it sends the keepalives. A halted one reconnects."};
        case CloseReason::ShuttingDown:
            return {"rvd's log: the daemon got SIGTERM or SIGINT.",
                    "Start it again; sessions reconnect by themselves."};
    }
    return {"", ""};
}

constexpr Explained explanationFor(BridgeLossCause cause) {
    switch (cause) {
        case BridgeLossCause::Engine:
            return {
                "'kvx hosts': numbers of another host's messages are missing here, and no cause is "
                "known.",
                "Look at the logs of the NATS servers on the way."};
        case BridgeLossCause::EngineGone:
            return {
                "'kvx hosts': the bridge of the sender or of this host was not connected to its "
                "NATS server meanwhile.",
                "Look at the line and at that server; give -engine more than one server."};
        case BridgeLossCause::EngineSlow:
            return {"'kvx hosts': NATS dropped what a bridge did not take in time.",
                    "Look at the load of that bridge's host; limit what crosses by -import."};
        case BridgeLossCause::QueueFull:
            return {
                "'kvx hosts': 64 MiB waited in a bridge, or for a bridge in its daemon: more is "
                "sent than the line carries.",
                "Limit what crosses by -export and -import; give the line more room."};
        case BridgeLossCause::PartMissing:
            return {"'kvx hosts': not all parts of a large message came.",
                    "See what else that host has lost; send smaller messages."};
    }
    return {"", ""};
}

// The part of a subject behind "_RV.<class>.SYSTEM.".
std::string nameIn(const std::string& subject) {
    static constexpr std::string_view kSource = ".SYSTEM.";
    return subject.substr(subject.find(kSource) + kSource.size());
}

template <class Enumerator>
void addReason(Explanations& all, const char* kind, Enumerator reason) {
    const Explained one = explanationFor(reason);
    all.push_back({kind, "", "", textOf(reason), one.why, one.mend});
}

}  // namespace

void addLosses(Explanations& all) {
    for (const auto& one : kAdvisories) {
        all.push_back({"advisory", "", one.subject, nameIn(one.subject), one.why, one.mend});
    }
    for (unsigned bit = 0; bit < kLossCauseBits; ++bit) {
        addReason(all, "cause of a loss", static_cast<LossCause>(1U << bit));
    }
    for (unsigned cause = 0; cause < kBridgeLossCauses; ++cause) {
        addReason(all, "cause of a loss between hosts", static_cast<BridgeLossCause>(cause));
    }
    for (unsigned reason = 0; reason < kCloseReasons; ++reason) {
        addReason(all, "end of a session at rvd", static_cast<CloseReason>(reason));
    }
}

}  // namespace kvx::tool::explaining
