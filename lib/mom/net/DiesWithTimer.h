#pragma once

namespace kvx {

/// A timer callback that nobody owns: it deletes itself when it fires, and the net deletes it when
/// it drops its timer before that.
class DiesWithTimer {
  public:
    DiesWithTimer() = default;
    DiesWithTimer(const DiesWithTimer&) = delete;
    DiesWithTimer& operator=(const DiesWithTimer&) = delete;
    virtual ~DiesWithTimer() = default;
};

}  // namespace kvx
