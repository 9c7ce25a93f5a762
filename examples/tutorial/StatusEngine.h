#pragma once

#include <mom/mom.h>

/// An engine whose process leaves in good order when a signal asks for it.
class StatusEngine : public CVekEngine {
  public:
    using CVekEngine::CVekEngine;

    void RRNPostInitFns() override {
        std::puts("ready");
        std::fflush(stdout);
    }

    /// Runs the main loop until a signal. The exit status of the process.
    int run() {
        if (m_sessionUp != 1 || !m_session) return 1;
        CMOMSignalHandler signals;
        signals.manage(this);
        signals.registerHandler(new Leave(*this));
        REDoIt();
        signals.stop();
        return 0;
    }

  private:
    // Ends the loop instead of the process, so that the engine is destroyed and its group hears of
    // it at once.
    struct Leave : CCallbackBase {
        explicit Leave(CVekRvNet& net) : net_(net) {}
        void operator()() override { net_.RRNStopLoop(); }
        CVekRvNet& net_;
    };
};
