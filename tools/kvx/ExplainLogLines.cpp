// Lines of the programs' logs. Each text is the constant part of a line: `kvx explain` recognises a
// line that holds it. The tests look for it in the program's source.

#include "tools/kvx/Explanations.h"

namespace kvx::tool::explaining {

namespace {

struct LogLine {
    const char* text;
    const char* why;
    const char* mend;
};

constexpr const char* kSystemLimits =
    "Look at the limits of the process: descriptors ('ulimit -n') and memory.";

constexpr LogLine kDaemonLines[] = {
    {"does not keep up",
     "A session reads too slowly; its oldest messages are dropped, and it is told.",
     "Look at that process; 'kvx explain slow reader'."},
    {"keeps up again", "The session has taken what waited.", "Nothing."},
    {"is turned away",
     "A client's network or user is not allowed (-allow, -allow-user). At most one such line a "
     "minute; connections.not_allowed counts all.",
     "Find out who connects; add it to -allow or -allow-user if it should."},
    {"cannot accept", "A connection could not be accepted.", kSystemLimits},
    {"connections for which there are descriptors are in use",
     "rvd has no descriptor left: the oldest connection without a session makes room, else "
     "newcomers are turned away (connections.refused).",
     "Raise the hard limit of descriptors (LimitNOFILE of the unit), or find who opens so many."},
    {"cannot listen on",
     "The port or the path of a unix socket is taken, or the address is not one of this host's.",
     "See 'ss -ltnp'; choose another -listen. 'kvx doctor' says whether an rvd is there already."},
    {"starting a successor", "SIGUSR2 or 'kvx upgrade' asked for the program that is there now.",
     "Nothing; the next lines say what became of it."},
    {"replaced by process", "A successor has taken everything over, and this process ends.",
     "Nothing; tell a supervisor that goes by process numbers the new one."},
    {"took over", "This process serves in the place of the one before it, with its sessions.",
     "Nothing."},
    {"not replaced", "The program at the daemon's path could not take over; the old one serves on.",
     "Mend what the line says and try again; if the state versions differ, restart the daemon: "
     "clients reconnect by themselves."},
    {"cannot take over",
     "This process was started as a successor, and ends; the old one serves on.",
     "The old one's line 'not replaced' says it too; do not start rvd with --take-over by hand."},
    {"cannot record in",
     "The file of -recorder-file cannot be made: no such directory, no room on the disk, or "
     "something that is no recording has that path.",
     "Mend that, or choose another -recorder-file; rvd does not start without it."},
    {"lines were left out", "More than 100 lines in one second; the rest was not written.",
     "Look at the lines before: some client causes them."},
};

constexpr LogLine kBridgeLines[] = {
    {"no daemon at", "The bridge does not reach its daemon; it tries again every 2 seconds.",
     "Start rvd there, or correct -daemon."},
    {"no engine",
     "No NATS server takes this bridge; it tries again every second. The reason follows.",
     "Look at -engine, the certificates and the server's log."},
    {"left out a block of the configuration file", "It has an error in that line.",
     "Correct it; 'kvx doctor' shows what counts of the file."},
    {"the engine forbids", "The bridge's user may not publish or subscribe below \"kvx.\".",
     "Correct the permissions in the NATS server's configuration."},
    {"is gone", "Another host's bridge was silent for 10 seconds, said goodbye or began anew.",
     "Look at that host and the line to it."},
    {"the daemon has dropped", "The bridge did not keep up, and its queue in the daemon was full.",
     "Look at the host's load; raise rvd's -queue-limit; limit what crosses."},
    {"messages of the engine cannot be read", "Something else publishes below \"kvx.\".",
     "Give nobody but the bridges that permission."},
    {"another bridge is running as host", "Two bridges have one name; the newcomer ends.",
     "Give each its own -host."},
    {"is already serving this daemon and space",
     "Two bridges serve one daemon and space; the newcomer ends.", "End one of them."},
};

constexpr LogLine kToolLines[] = {
    {"the bus daemon is lost",
     "The connection to the daemon broke; commands that go on reconnect, others end with 1.",
     "Look whether rvd runs, and at its log; 'kvx doctor'."},
    {"no session with the bus daemon",
     "No daemon answers there; the text names each attempt and why it failed.", "'kvx doctor'."},
    {"the bus daemon dropped what this program was too slow to take",
     "This command, or the reader of its output, was too slow.",
     "Write to a file instead of a terminal; listen to less."},
    {"resynchronised",
     "kvx follow could not have the changes one by one (a take-over, a restart, a long absence) "
     "and printed what is different.",
     "Nothing: the rows are right again."},
    {"its packets are ignored",
     "A second member or service answered the query; only the first one counts.",
     "'kvx services' names them; make them one group, or give them different names."},
    {"two answer on", "Two groups, or two services without one, use one query subject.",
     "Make them one group, or give them different names."},
    {"no bridge answers", "No rvbridge serves this daemon in this service and network.",
     "Start one when hosts should be joined; else nothing."},
};

constexpr LogLine kLibraryLines[] = {
    {"Rendezvous Error Not Handled by User Program",
     "An advisory below _RV.WARN or _RV.ERROR came, and nothing listens to \"_RV.>\".",
     "Explain its ADV_NAME; listen to \"_RV.>\" to handle it (RRNAddErrorService)."},
    {"Rendezvous failed to make session", "A net or an engine could not open its session.",
     "The text behind it is that of the session code; 'kvx doctor'."},
    {"Failed to join ft group", "An engine is no member of its group, and will never be active.",
     "The text behind it is that of the group code."},
    {"Parser error", "A block of the daemon configuration file is left out; the line is named.",
     "Correct it; 'kvx doctor' shows what counts of the file."},
    {"not a valid service", "The daemon configuration file has an unknown key, which is ignored.",
     "The keys are service, network, daemon and rva."},
};

template <std::size_t N>
void addLines(Explanations& all, const char* kind, const LogLine (&lines)[N]) {
    for (const LogLine& line : lines) all.push_back({kind, "", "", line.text, line.why, line.mend});
}

}  // namespace

void addLogLines(Explanations& all) {
    addLines(all, "line of rvd", kDaemonLines);
    addLines(all, "line of rvbridge", kBridgeLines);
    addLines(all, "line of kvx", kToolLines);
    addLines(all, "line of the libraries", kLibraryLines);
}

}  // namespace kvx::tool::explaining
