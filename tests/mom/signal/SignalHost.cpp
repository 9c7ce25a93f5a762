// A hosting process as the signal tests start it: a net, its main loop, and the signal handler.
//
//     SignalHost where [level [file]]
//
// `where` says where the signal is to find the process, or what it does beside waiting for one.
// What waits for `file` goes on when that exists.

#include <unistd.h>

#include <iostream>
#include <string>

#include "mom/net/CVekRvNet.h"
#include "mom/signal/CMOMSignalHandler.h"
#include "mom/timed/CVekTimedWork.h"
#include "mom/timed/CVekTimedWorkMgr.h"
#include "rv/object/RvTimerCallback.h"

namespace {

constexpr int kAfterThePollersFirstTurn = 250;  // milliseconds

void sayReady() {
    std::cout << "ready" << std::endl;
}

void waitFor(const std::string& file) {
    while (access(file.c_str(), F_OK) != 0) usleep(1000);
}

// A poll that never ends.
struct StuckPoll : CVekTimedWork {
    void RTWDoPoll() override {
        sayReady();
        for (;;) pause();
    }
};

class Host : public CVekRvNet, public RvTimerCallback {
  public:
    Host(std::string where, std::string file)
        : CVekRvNet(0, "TEST"), m_where(std::move(where)), m_file(std::move(file)) {}

    void start() {
        if (m_where != "starting") return;
        m_handler.manage(this);
        sayReady();
        waitFor(m_file);
    }

    void RRNPostInitFns() override {
        if (m_where == "starting") return;
        m_where == "leave" ? m_handler.manage(this, [this] { RRNStopLoop(); })
                           : m_handler.manage(this);
        if (m_where == "again") m_handler.manage(this);
        if (m_where == "shutdown") m_handler.shutdown(0);
        if (m_where == "stop" || m_where == "destroy") {
            RRNAddTimer(kAfterThePollersFirstTurn, this);
        } else if (m_where == "callback" || m_where == "poll") {
            RRNAddTimer(1, this);
        } else {
            sayReady();
        }
    }

    void onTimer(RvTimer*) override {
        if (m_where == "destroy") {
            RRNStopLoop();
        } else if (m_where == "callback") {
            sayReady();
            waitFor(m_file);
            std::cout << "done" << std::endl;
        } else if (m_where == "poll") {
            m_timedWork.RTWMAddRepeatPoller(&m_poll);
            m_timedWork.onTimer(nullptr);
        } else {
            m_handler.stop();
            std::cout << "stopped" << std::endl;
        }
    }

  private:
    std::string m_where;
    std::string m_file;
    CMOMSignalHandler m_handler;
    StuckPoll m_poll;
    CVekTimedWorkMgr m_timedWork{nullptr, 1, 1000, 1, nullptr, FALSE};
};

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2) __ZembraLix_Debug_Level = std::stoi(argv[2]);
    Host host(argc > 1 ? argv[1] : "", argc > 3 ? argv[3] : "");
    host.start();
    host.RRNDoIt();
    std::cout << "left" << std::endl;
    return 3;
}
