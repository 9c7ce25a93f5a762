// A program that starts as the successor of an rvd, and fails as the file beside it says.

#include <signal.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#include "platform/Signals.h"
#include "rvd/Successor.h"
#include "rvd/Version.h"

namespace {

std::string fault;

// Sends the old one a signal when it has given everything, and tells what comes of that.
int signalTo(kvx::rvd::Predecessor& predecessor, int signal) {
    namespace platform = kvx::platform;
    const std::array<int, 1> terminate = {SIGTERM};
    platform::blockSignals(terminate);
    kill(getppid(), signal);
    if (!predecessor.begin()) return 1;
    const bool isToEnd = signal == SIGTERM && platform::awaitSignal(terminate, 10'000) == SIGTERM;
    std::cerr << "took over " << (isToEnd ? "and is to end\n" : "\n");
    return 0;
}

}  // namespace

namespace kvx::rvd {

const char* version() {
    return "odd";
}

std::uint64_t stateVersion() {
    return fault == "another state" ? 99 : 3;
}

}  // namespace kvx::rvd

int main(int, char** argv) {
    std::getline(std::ifstream(std::string(argv[0]) + ".fault"), fault);
    if (fault == "hangs") std::this_thread::sleep_for(std::chrono::minutes(5));
    kvx::rvd::Predecessor predecessor(kvx::platform::Program::kInherited);
    const std::string error = predecessor.takeOver(kvx::rvd::version());
    if (error.empty() && fault == "refuses") predecessor.refuse("it is Friday");
    if (error.empty() && fault == "kills") return signalTo(predecessor, SIGKILL);
    if (error.empty() && fault == "ends") return signalTo(predecessor, SIGTERM);
    return 1;
}
