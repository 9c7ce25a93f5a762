#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/Clock.h"
#include "tools/bus/DatumJson.h"

namespace kvx::rva {

using bus::Json;

/// What the daemon is asked about, one question each.
enum class Topic : std::uint8_t { Status, Sessions, Subjects };
inline constexpr std::size_t kTopics = 3;

/// How it is with the last question of a topic.
enum class Answering : std::uint8_t {
    NotYet,   ///< the first one has no answer yet
    Answers,  ///< the answer is there
    Silent,   ///< there was none in time: it hangs, or is older than the question
    Refuses,  ///< it tells sessions of this host nothing
    Lost      ///< there is no session with a daemon
};

/// The rows of an answer: the foremost of them, and what those after the first 20 have together.
struct Rows {
    static constexpr std::size_t kShown = 20;
    static constexpr std::size_t kKept = 200;

    [[nodiscard]] std::span<const Json> shown() const {
        return std::span(kept).first(std::min(kept.size(), kShown));
    }

    std::vector<Json> kept;
    std::size_t more = 0;          ///< rows that are not kept
    Json others = Json::object();  ///< sums of the numbers of those not shown; empty without any
};

/// What the daemon has answered about itself. A topic that it does not answer any more has no
/// figures: old ones are not shown as if they were true.
class DaemonFigures {
  public:
    struct State {
        Answering how = Answering::NotYet;
        std::optional<platform::Milliseconds> answered;  ///< when it last was
        std::uint64_t questions = 0;
    };

    void ask(Topic topic) { ++at(topic).questions; }
    /// Takes an answer, whatever is in it.
    void take(Topic topic, const Json& answer, platform::Milliseconds now);
    /// There is none, of this topic.
    void miss(Topic topic, Answering how);
    /// There is none of any topic.
    void lose();

    [[nodiscard]] const State& state(Topic topic) const {
        return states_[static_cast<std::size_t>(topic)];
    }

    [[nodiscard]] const Json& status() const { return status_; }
    /// Those who do not keep up first, then those with most waiting, then the busiest.
    [[nodiscard]] const Rows& sessions() const { return sessions_; }
    /// How many of all do not keep up.
    [[nodiscard]] std::uint64_t behind() const { return behind_; }
    /// The busiest first.
    [[nodiscard]] const Rows& subjects() const { return subjects_; }
    /// How many subjects the daemon keeps count of.
    [[nodiscard]] std::uint64_t known() const { return known_; }

  private:
    State& at(Topic topic) { return states_[static_cast<std::size_t>(topic)]; }
    void clear(Topic topic);

    std::array<State, kTopics> states_;
    Json status_ = Json::object();
    Rows sessions_;
    std::uint64_t behind_ = 0;
    Rows subjects_;
    std::uint64_t known_ = 0;
};

}  // namespace kvx::rva
