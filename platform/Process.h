#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Export.h"

/// Processes: this one, and those it starts. Any thread.
namespace kvx::platform {

/// The effective user's name, or "Unknown user".
[[nodiscard]] KVX_API std::string userName();

/// The id of a user of this system by its name; nothing when there is none.
[[nodiscard]] KVX_API std::optional<std::uint32_t> userId(const std::string& name);

[[nodiscard]] KVX_API unsigned long processId() noexcept;

/// A program to start.
struct Program {
    std::string path;  ///< with a slash it is a file; without one it is looked for on `PATH`
    std::vector<std::string> arguments;  ///< the argument vector, its first element included
    std::string directory;               ///< working directory; empty keeps this process's
    /// Of this process, which the child gets as descriptor `kInherited`; none when negative.
    int inherited = -1;
    static constexpr int kInherited = 3;
    /// Becomes the supervised service in the place of this process; else it is not told of the
    /// supervisor.
    bool isSuccessor = false;
};

/// The outcome of a start: a process id, or 0 and the system's error number (for example `ENOENT`
/// when the program is missing, `EACCES` when it cannot be run).
struct Started {
    unsigned long pid = 0;
    int error = 0;
};

/// Starts `program` as a child of this process; it inherits the standard streams and no other
/// descriptor, the environment, with default signal dispositions and no signal blocked. A failed
/// exec is reported in the result. The caller ends it with `killAndReap` or fetches its exit status
/// with `reap`.
[[nodiscard]] KVX_API Started startChild(const Program& program);

/// Starts `program` as a daemon: in a session of its own, detached from this process (it never
/// becomes a zombie of ours), standard input from the null device, output and errors appended to
/// `<logName>.log` below `stateDirectory()` (to the null device when that cannot be opened), the
/// environment inherited. A failed exec is reported in the result. Does not wait until the program
/// is ready.
[[nodiscard]] KVX_API Started startDaemon(const Program& program, const std::string& logName);

/// Ends the child `pid` and waits for its end: SIGTERM first, SIGKILL after `grace`. True when the
/// process existed, was our child and is gone now, even if other code reaped it. Never signals a
/// process that is not our child.
KVX_API bool killAndReap(unsigned long pid, Milliseconds grace = 2'000);

/// The exit status of the child `pid` once it has ended (128 + signal when a signal ended it);
/// nothing while it runs or when there is no such child. Never blocks.
[[nodiscard]] KVX_API std::optional<int> reap(unsigned long pid) noexcept;

/// Sends a signal of the system's numbering to a process. False when it does not exist or may not
/// be signalled.
KVX_API bool sendSignal(unsigned long pid, int signal) noexcept;

/// The directory that holds the running program's file; empty when unknown.
[[nodiscard]] KVX_API std::string programDirectory();

/// The file that holds the code at `address` in this process, a shared library or the program: its
/// absolute path without symbolic links; empty when unknown.
[[nodiscard]] KVX_API std::string fileOfCode(const void* address);

/// The base name, untruncated, of the program file that process `pid` runs; nothing when there is
/// no such process or it may not be inspected.
[[nodiscard]] KVX_API std::optional<std::string> programName(unsigned long pid);

/// The first executable file `name` in the directories of `PATH`; nothing when there is none.
[[nodiscard]] KVX_API std::optional<std::string> findOnPath(const std::string& name);

/// The directory for this user's persistent state: `$XDG_STATE_HOME/kvxmom`, else
/// `~/.local/state/kvxmom`, created when missing; empty on failure.
[[nodiscard]] KVX_API std::string stateDirectory();

/// Raises the process's limit of open descriptors as far as the system allows it. Returns how many
/// may be opened beside those that are open now.
[[nodiscard]] KVX_API std::size_t raiseDescriptorLimit();

/// Resource use of this process. A figure that is not available is 0.
struct ProcessFigures {
    double cpuSeconds = 0;  ///< of all its threads, in user and system mode
    std::uint64_t residentBytes = 0;
    std::uint64_t openDescriptors = 0;
};
[[nodiscard]] KVX_API ProcessFigures processFigures();

/// Flushes the standard streams and ends the process at once, without static destructors or exit
/// handlers, which running threads may depend on.
[[noreturn]] KVX_API void exitNow(int status);

}  // namespace kvx::platform
