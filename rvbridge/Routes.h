#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "rv/message/SubjectView.h"
#include "rvbridge/Exchange.h"
#include "rvbridge/Ledger.h"

namespace kvx::bridge {

/// To which hosts the messages of a bridge go, and by which way. What one host wants goes to it
/// directly. What several want is published on the subject, and for a while after that too: who has
/// seen a number on the subject sees those that follow, also while we do not know yet that its host
/// listens. Loop thread only.
class Routes {
  public:
    /// Of one subject. Valid until the next call of `find`.
    class Route {
      public:
        [[nodiscard]] bool isWanted() const { return !traffic_.empty(); }
        /// The only host that wants it; empty: it is published on the subject.
        [[nodiscard]] std::string_view direct() const {
            return isDirect_ ? std::string_view(host_) : std::string_view();
        }
        /// A message goes there.
        void count(std::size_t bytes);

      private:
        friend class Routes;
        std::uint64_t interest_ = 0;     // that of the routes when the rest was found
        std::vector<Traffic*> traffic_;  // of those who want it
        std::string host_;               // the last of them
        Microseconds sharedUntil_ = 0;
        bool isDirect_ = false;
    };

    /// Whoever wanted a subject together with others has told it again by then, or was forgotten.
    static constexpr Microseconds kShared = Exchange::kSilence + Exchange::kBeat;

    /// Knows the last `limit` subjects. `exchange` must outlive this object; `seed`: random.
    Routes(const Exchange& exchange, std::uint64_t seed, std::size_t limit = Sender::kMaxSubjects)
        : exchange_(exchange), routes_(seed, limit) {}

    /// For a message that is sent now.
    Route& find(SubjectView subject, Microseconds now);
    /// What others want may have changed.
    void interestChanged() { ++interest_; }
    /// What has gone to that host.
    [[nodiscard]] Traffic sentTo(std::string_view host) const;

  private:
    void refresh(Route& route, SubjectView subject);

    const Exchange& exchange_;
    RecentTable<Route> routes_;
    std::uint64_t interest_ = 1;
    Microseconds sharedUntil_ = 0;                      // of the routes that have left the table
    static constexpr std::size_t kMaxCounted = 16'384;  // hosts; then all begin at 0 again
    std::map<std::string, Traffic, std::less<>> sent_;  // the routes point into it
};

}  // namespace kvx::bridge
