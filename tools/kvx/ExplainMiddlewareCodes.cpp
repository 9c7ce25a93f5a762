// The codes of the foundation and the middleware, the failures of the room kvx, and the exit
// statuses of the programs. A code of the catalogue without a row here does not compile, and no
// failure without a case.

#include "foundation/ErrorCatalogue.h"
#include "kvx/Error.h"
#include "mom/base/VekCodes.h"
#include "tools/bus/Program.h"
#include "tools/kvx/Explanations.h"

namespace kvx::tool::explaining {

namespace {

constexpr Reason kCatalogueReasons[] = {
    {kNotCreated,
     "The session refused to make a sender, listener, timer or I/O handler; the line before on "
     "standard error has the session's own text.",
     "Look at that text ('kvx explain TEXT'): most often the subject is invalid or the daemon "
     "lost."},
    {kNoAnswer,
     "Another thread asked the net for an object, and the main loop did not make it within 20 "
     "minutes, or the session ended meanwhile.",
     "Run the main loop (RRNDoIt), and let none of its callbacks block."},
    {kBusError, "An advisory below _RV.ERROR came for this session; the report's text is its body.",
     "Explain the advisory itself: 'kvx explain NAME' with its ADV_NAME."},
    {kBusWarning,
     "An advisory below _RV.WARN came for this session; the report's text is its body.",
     "Explain the advisory itself: 'kvx explain NAME' with its ADV_NAME."},
    {kUnknownRequest,
     "The main loop found a request of an unknown type among those of other threads.",
     "Look for code that pushes on the request stack itself, or overwrites memory."},
    {kIllegalFrequency, "RTWMAddPoll: the poll's frequency is below 1.",
     "Give each poll a frequency of at least 1."},
    {kMissingArgument,
     "A null argument where one is needed: an atom, a record, a packet, a listener, a timer. From "
     "another thread: the net does not take requests, since its session is not open.",
     "Look at the argument. Open the session (RRNInitSession) before other threads use the net."},
    {kInvalidRequest, "A request of another thread lacks its callback or its subject.",
     "Give RRNNewListener, RRNNewTimer and RRNNewIO a callback, and senders a subject."},
    {kOffMainThread,
     "A call that only the thread of the net may make came from another one, or a second thread "
     "built a net while the first one stands.",
     "Call it on the thread that built the net, or hand it over by RRNPost; have one net thread a "
     "process."},
    {kUnknownState,
     "A worker that waits has a status, or its response a state, that the manager does not know.",
     "Return from PRPollState, and set as RTWSetStatus, only the values that their headers name."},
    {kNotCompleted,
     "Not possible in this state. The text says what: a full container, a record of more than "
     "65,535 fields, an agent that cannot be started or stopped, a call under a lock of the timed "
     "work manager, a query that is neither a text nor a message.",
     "Read the text of the report. For the agent: look for rva in $VEK_HOME/bin, or start it as "
     "its unit does."},
    {kInternalFailure,
     "zlib refused to compress or to inflate (the text is its own), or there are no descriptors "
     "for "
     "the loop's wake-up (RRNAllowPosts).",
     "Inflating: the packet is damaged, look who sent it. Else look at memory and descriptors."},
    {kIoTypeChosen,
     "RRNAddIOHandle was asked for more than one of reading, writing and exceptions; only the "
     "first counts.",
     "Call it once for each."},
    {kNoHostName, "RESetEngineID: the system does not give the name of this host.",
     "Set the host's name ('hostnamectl')."},
    {kBadPacket,
     "A message that came is no transport packet of this system, or its header, lengths or "
     "compressed bytes do not agree. It was left out.",
     "Look with 'kvx listen SUBJECT' who sends there; something else may use the subject."},
    {kWrongAtomType, "The atom holds another kind of value than was asked for.",
     "Ask RAType first."},
    {kNotRegistered,
     "CMOMSignalHandler: a signal of the process could not be registered: the system refused the "
     "handler, or memory ran out. The process does not handle that signal.",
     "Look at the memory of the process; the text of the report names the signal."},
    {kNoListener, "The bus refused the listener of a service; the line before has its text.",
     "Look at the subject and the domain; see whether the daemon is lost."},
    {kNoSession,
     "The net has no session: none was opened, opening failed, or it was closed meanwhile, perhaps "
     "in a callback of this call.",
     "Look at the result of RRNInitSession; 'kvx doctor' tells why no daemon is reached."},
    {kNotSent,
     "The bus refused a message or a request: the daemon is lost, the queue full, or the subject "
     "invalid.",
     "Send again when the daemon is back; see 'kvx explain 22' and 'kvx explain 20'."},
    {kNotFound, "No such key, element, sender, listener, timer or poll.",
     "Remove things once; look at the key's spelling."},
    {kFileUnusable, "The file is missing, cannot be read, or is too large.",
     "Look at its path and permissions. 'kvx doctor' names the configuration file that is read."},
    {kParserGaveUp, "The parser of the configuration file could not go on after its errors.",
     "Correct the line that 'kvx doctor' names."},
    {kInvalidArgument,
     "A null or invalid argument, most often a null text, callback or datum. With the text "
     "\"Forced Exit\": an engine could not open the session of its group.",
     "The report names class and line, where the argument is tested. For \"Forced Exit\" run 'kvx "
     "doctor'."},
    {kNoMemory, "Memory ran out; the operation was not done.",
     "Look at the memory of the process and its limits ('ulimit -v', the control group)."},
    {kKeyPresent, "The container has an entry with that key already; the caller keeps its pointer.",
     "Take the old entry out first, or use another key."},
};
static_assert(explains(kCatalogueReasons, kCatalogue));

struct Failure {
    const char* name;
    const char* why;
    const char* mend;
};

constexpr Failure failureOf(Errc code) {
    switch (code) {
        case Errc::InvalidArgument:
            return {"Errc::InvalidArgument", "An argument cannot be used; the text says which.",
                    "Correct it: nothing was done."};
        case Errc::NoDaemon:
            return {"Errc::NoDaemon",
                    "The bus could not be reached when a client or service was opened; the text "
                    "names each attempt.",
                    "Run 'kvx doctor', and start rvd or correct the address."};
        case Errc::Lost:
            return {"Errc::Lost",
                    "The connection to the daemon was lost meanwhile; what was asked may or may "
                    "not have been done.",
                    "Ask again: the connection is restored by itself."};
        case Errc::TimedOut:
            return {"Errc::TimedOut",
                    "No answer or packet came within the time-out: no service of that name is "
                    "active in this domain and space, or it is slow.",
                    "Look with 'kvx services' who answers; give it more time."};
        case Errc::Partial:
            return {"Errc::Partial",
                    "An answer stopped before its end, was larger than the bound, or had records "
                    "that cannot be read.",
                    "Ask again; ask for less, or stream the answer."};
        case Errc::MixedAnswers:
            return {"Errc::MixedAnswers",
                    "The packets of an answer are not 1 to N, each once: two members without an "
                    "inbox answered, or packets were lost.",
                    "Look with 'kvx services' whether two answer on one subject; make them one "
                    "group."};
        case Errc::Refused:
            return {"Errc::Refused", "The service answered with an error; the text is its own.",
                    "Correct the query."};
        case Errc::QueueFull:
            return {"Errc::QueueFull", "As much waits to be sent as may wait.",
                    "Wait, and send again; send more slowly."};
        case Errc::NoMemory:
            return {"Errc::NoMemory", "No memory, no thread, or no descriptor to wake the loop.",
                    "Look at the limits of the process."};
        case Errc::Ended:
            return {"Errc::Ended",
                    "The client, service or call has ended, or the answer was cancelled.",
                    "Open a new one."};
        case Errc::Busy:
            return {"Errc::Busy", "Another client, service or net of this process has the loop.",
                    "Have one in a process, or end the other one first."};
    }
    return {"", "", ""};
}

void addFailures(Explanations& all) {
    for (int code = 1;; ++code) {
        const auto failure = static_cast<Errc>(code);
        const Failure reasons = failureOf(failure);
        if (*reasons.name == '\0') return;
        all.push_back({"failure of kvx::Client and kvx::Service", std::to_string(code),
                       reasons.name, textOf(failure), reasons.why, reasons.mend});
    }
}

constexpr Reason kStatuses[] = {
    {bus::kSuccess, "Everything was done and written.", "Nothing."},
    {bus::kFailure,
     "The program could not do what it was asked, or not write its output; a line on standard "
     "error says what. kvx explain: nothing is known of the words. kvx doctor: something must be "
     "mended.",
     "Read that line; 'kvx explain' takes it too."},
    {bus::kUsage, "The command line is invalid.", "See 'kvx help COMMAND', or --help."},
};

}  // namespace

void addMiddlewareCodes(Explanations& all) {
    add(all, "error report", kCatalogueReasons, kCatalogue);
    addFailures(all);
    for (const Reason& status : kStatuses) {
        all.push_back(
            {"exit status", std::to_string(status.code), "", "", status.why, status.mend});
    }
}

}  // namespace kvx::tool::explaining
