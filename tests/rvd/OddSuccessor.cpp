// A program that starts as the successor of an rvd, and fails as the file beside it says.

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "rvd/Successor.h"
#include "rvd/Version.h"

namespace {

std::string fault;

}  // namespace

namespace kvx::rvd {

const char* version() {
    return "odd";
}

std::uint64_t stateVersion() {
    return fault == "another state" ? 99 : 1;
}

}  // namespace kvx::rvd

int main(int, char** argv) {
    std::getline(std::ifstream(std::string(argv[0]) + ".fault"), fault);
    if (fault == "hangs") std::this_thread::sleep_for(std::chrono::minutes(5));
    kvx::rvd::Predecessor predecessor(kvx::platform::Program::kInherited);
    const std::string error = predecessor.takeOver(kvx::rvd::version());
    if (error.empty() && fault == "refuses") predecessor.refuse("it is Friday");
    return 1;
}
