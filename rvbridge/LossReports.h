#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "rv/message/SubjectView.h"
#include "rvbridge/DaemonLink.h"
#include "rvbridge/Ledger.h"

namespace kvx::bridge {

/// Tells the daemon what was lost between hosts; what it has no room for waits. Loop thread only.
class LossReports {
  public:
    explicit LossReports(DaemonLink& daemon) : daemon_(daemon) {}

    /// To be told. Beyond `kMaxSubjects` that wait it is left out.
    void add(SubjectView subject, std::uint64_t messages, LossCause cause);
    /// As far as there is room.
    void tell();
    /// Whether nothing waits any more for this subject: a message on it may follow.
    [[nodiscard]] bool isTold(SubjectView subject);
    void clear() { untold_.clear(); }

    static constexpr std::size_t kMaxSubjects = 65'536;

  private:
    [[nodiscard]] bool tell(const std::string& subject, Losses& losses);

    DaemonLink& daemon_;
    std::unordered_map<std::string, Losses> untold_;  // by encoded subject
};

}  // namespace kvx::bridge
