#pragma once

#include <mom/mom.h>

#include "Agent.h"

/// The periodic poll of an agent, by one poller at a time: for each agent the pollers are a group,
/// of which one is active. Their weights in it are drawn by lot, the same for the same names, so
/// that each poller has about as many agents, and has them again after a restart.
///
/// Main thread, but for the two functions of the timed work. Outlives the manager of the work.
class Turn : public CVekTimedWork {
  public:
    static constexpr const char* kReports = "POLLER.REPORT";  // a subject

    Turn(kvx::Service& service, const Agent& agent, std::string poller, int ticks)
        : service_(service), agent_(agent), poller_(std::move(poller)) {
        RTWSetName(new CVekAtom(agent.name.c_str()));
        RTWSetFrequency(ticks);
    }
    ~Turn() override { rvft_Leave(member_); }

    /// False when the agent's name cannot be a group's.
    bool join() {
        const auto lot = static_cast<unsigned>(std::hash<std::string>{}(agent_.name + poller_));
        const std::string group = "agent." + agent_.name;
        return rvft_Join(service_.engine().m_session->handle(), &member_, group.c_str(), lot,
                         1 /*active*/, kBeat, 0 /*to prepare*/, kSilence, roleChanged, this) == 0;
    }

    __boolean RTWAddToPool() override { return isMine_ && !RTWPollIsExecuting() ? TRUE : FALSE; }

    void RTWDoPoll() override {
        kvx::Message report{{"agent", agent_.name}, {"poller", poller_}};
        static_cast<void>(report.add("state", agent_.read(report) ? "up" : "down"));
        static_cast<void>(service_.post([this, report] { tell(report); }));
    }

  private:
    static constexpr unsigned long kBeat = 1000;     // milliseconds
    static constexpr unsigned long kSilence = 3500;  // after which another takes over

    static void roleChanged(rv_Session, const char*, int action, void* turn) {
        static_cast<Turn*>(turn)->isMine_ = action == RVFT_ACTIVATE;
    }

    // After the process stood still the agent may be another's; what was read before is old then.
    void tell(const kvx::Message& report) {
        if (rvft_IsFresh(member_) == 0) return;
        service_.engine().REAddToSendQueue(kReports, new RvMsg(report.base()), nullptr, TRUE);
    }

    kvx::Service& service_;
    const Agent& agent_;
    const std::string poller_;
    std::atomic<bool> isMine_{false};
    rvft_MemberId member_ = nullptr;
};
