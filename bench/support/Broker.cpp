#include "bench/support/Broker.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace kvx::bench {
namespace {

[[noreturn]] void become(const std::string& commandLine, int output) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(output, STDOUT_FILENO);
    std::istringstream words(commandLine);
    std::vector<std::string> arguments;
    for (std::string word; words >> word;) arguments.push_back(word);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

}  // namespace

Broker::Broker(const std::string& commandLine) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    pid_ = fork();
    if (pid_ == 0) become(commandLine, ends[1]);
    ::close(ends[1]);
    std::string line;
    for (char c = 0; read(ends[0], &c, 1) == 1 && c != '\n';) line += c;
    ::close(ends[0]);
    const auto colon = line.rfind(':');
    if (line.find(" ready on tcp:") == std::string::npos) {
        throw std::runtime_error("does not start: " + commandLine);
    }
    port_ = static_cast<std::uint16_t>(std::stoi(line.substr(colon + 1)));
}

Broker::~Broker() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

}  // namespace kvx::bench
