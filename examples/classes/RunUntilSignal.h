#pragma once

#include <mom/mom.h>

/// Runs the main loop of `engine` until a signal. Returns the exit status of the process.
inline int runUntilSignal(CVekEngine& engine) {
    if (engine.m_sessionUp != 1 || !engine.m_session) return 1;
    engine.RRNSetPostInitFns([] {
        std::puts("ready");
        std::fflush(stdout);
    });
    // A signal ends the loop instead of the process, so that the engine is destroyed and leaves its
    // group at once. What is still queued then is dropped.
    CMOMSignalHandler signals;
    signals.manage(&engine, [&engine] { engine.RRNStopLoop(); });
    engine.REDoIt();
    signals.stop();
    return 0;
}
