#pragma once

#include <mom/mom.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// The data of one device.
struct Device {
    std::string name;
    std::string state;
    std::chrono::steady_clock::time_point heard;
};

/// The data of the service: devices and their states. Any thread.
class Devices {
  public:
    /// Sets a state. True when it has changed.
    bool set(const std::string& name, const std::string& state) {
        const std::lock_guard guard(mutex_);
        const auto now = std::chrono::steady_clock::now();
        const auto found = std::find_if(devices_.begin(), devices_.end(),
                                        [&](const Device& known) { return known.name == name; });
        if (found == devices_.end()) {
            devices_.push_back({name, state, now});
            return true;
        }
        found->heard = now;
        return std::exchange(found->state, state) != state;
    }

    /// Marks a device as silent since `before`. False when it was silent already, or was heard
    /// meanwhile.
    bool silence(const std::string& name, std::chrono::steady_clock::time_point before) {
        const std::lock_guard guard(mutex_);
        for (Device& device : devices_) {
            if (device.name != name || device.heard >= before) continue;
            return std::exchange(device.state, "silent") != "silent";
        }
        return false;
    }

    std::vector<Device> all() const {
        const std::lock_guard guard(mutex_);
        return devices_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<Device> devices_;  // guarded by mutex_
};

/// Adds one device as a record. The transport encodes it at once.
inline void addRecord(CVekTransport& transport, const std::string& name, const std::string& state) {
    CVekBaseRecord record;
    record.RRAddOrSetValue("name", new CVekAtom(name.c_str()));
    record.RRAddOrSetValue("state", new CVekAtom(state.c_str()));
    transport.RTAddRecord(&record);
}
