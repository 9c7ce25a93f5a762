// A hosting process as the signal tests start it: a net without a daemon, its main loop, and the
// signal handler. The argument says what it does beside waiting for signals.

#include <iostream>
#include <string>

#include "mom/net/CVekRvNet.h"
#include "mom/signal/CMOMSignalHandler.h"
#include "rv/object/RvTimerCallback.h"

namespace {

constexpr int kAfterThePollersFirstTurn = 250;  // milliseconds

class Host : public CVekRvNet, public RvTimerCallback {
  public:
    explicit Host(const std::string& mode) : CVekRvNet(0, "TEST"), m_mode(mode) {}

    void RRNPostInitFns() override {
        m_handler.manage(this);
        if (m_mode == "again") m_handler.manage(this);
        if (m_mode == "shutdown") m_handler.shutdown(0);
        if (m_mode == "stop" || m_mode == "destroy") {
            RRNAddTimer(kAfterThePollersFirstTurn, this);
        } else {
            std::cout << "ready" << std::endl;
        }
    }

    // The poller has fired: either stop handling signals and go on, or leave the loop.
    void onTimer(RvTimer*) override {
        if (m_mode == "destroy") {
            RRNStopLoop();
            return;
        }
        m_handler.stop();
        std::cout << "stopped" << std::endl;
    }

  private:
    std::string m_mode;
    CMOMSignalHandler m_handler;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2) __ZembraLix_Debug_Level = std::stoi(argv[2]);
    Host host(argc > 1 ? argv[1] : "");
    host.RRNDoIt();
    std::cout << "left" << std::endl;
    return 3;
}
