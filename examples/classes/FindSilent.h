#pragma once

#include "Devices.h"
#include "TakeReports.h"

/// The poll: a device that has not reported for `patience` is called silent.
class FindSilent : public CVekTimedWork {
  public:
    FindSilent(CVekEngine& engine, Devices& devices, std::chrono::milliseconds patience)
        : engine_(engine), devices_(devices), patience_(patience) {
        RTWSetName(new CVekAtom("find silent"));
        RTWSetFrequency(1);
    }

    // The previous round may still run: one is enough.
    __boolean RTWAddToPool() override { return RTWPollIsExecuting() ? FALSE : TRUE; }

    // On a thread of the manager's pool: sends go through the engine's queue.
    void RTWDoPoll() override {
        const auto before = std::chrono::steady_clock::now() - patience_;
        for (const Device& device : devices_.all()) {
            if (devices_.silence(device.name, before) && engine_.REIsActive()) {
                notify(engine_, device.name, "silent");
            }
        }
    }

  private:
    CVekEngine& engine_;
    Devices& devices_;
    const std::chrono::milliseconds patience_;
};
