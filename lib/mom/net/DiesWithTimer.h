#pragma once

namespace kvx {

/// A timer callback without an owner: it deletes itself when it fires; the net deletes it with a
/// timer that has not fired.
class DiesWithTimer {
  public:
    DiesWithTimer() = default;
    DiesWithTimer(const DiesWithTimer&) = delete;
    DiesWithTimer& operator=(const DiesWithTimer&) = delete;
    virtual ~DiesWithTimer() = default;
};

}  // namespace kvx
