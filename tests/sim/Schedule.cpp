#include "tests/sim/Schedule.h"

#include <algorithm>
#include <array>

namespace kvx::sim {

namespace {

struct Kind {
    const char* name;
    unsigned weight;
    std::array<unsigned, 4> amounts = {50, 1'000, 5'000, 30'000};
};

constexpr std::array<Kind, static_cast<std::size_t>(Deed::Count)> kKinds = {{
    {"join", 10},         {"leave", 4},
    {"listen", 16},       {"crowd", 2, {70, 70, 400, 400}},
    {"cancel", 8},        {"publish", 30, {1, 3, 10, 60}},
    {"request", 8},       {"arm", 8},
    {"fail next", 4},     {"sleep", 3},
    {"freeze", 4},        {"stall up", 3},
    {"stall down", 6},    {"cut", 4},
    {"refuse", 2},        {"fail daemon", 2},
    {"freeze daemon", 2}, {"stop daemon", 1},
    {"kill daemon", 2},   {"rest", 1, {20, 200, 200, 700}},
}};

Deed anyDeed(Random& random) {
    std::vector<Deed> deeds;
    for (std::size_t i = 0; i < kKinds.size(); ++i)
        deeds.insert(deeds.end(), kKinds[i].weight, static_cast<Deed>(i));
    return random.among(deeds);
}

}  // namespace

std::string Action::text() const {
    return "at " + std::to_string(at) + " ms " + kKinds.at(static_cast<std::size_t>(deed)).name +
           ", client " + std::to_string(client) + ", " + std::to_string(a) + ", " +
           std::to_string(b);
}

Schedule scheduleOf(std::uint64_t seed, unsigned clients) {
    Random random(seed ^ 0x5EEDULL);
    Schedule schedule;
    for (unsigned client = 0; client < clients; ++client) {
        schedule.push_back({0, Deed::Join, client, 0, 0});
        schedule.push_back({0, Deed::Listen, client, static_cast<unsigned>(random(1'000)), 0});
    }
    Milliseconds at = 0;
    for (std::uint64_t left = 10 + random(80); left > 0; --left) {
        if (random.oneIn(2))
            at += static_cast<Milliseconds>(random(random.oneIn(8) ? 10'000 : 200));
        const Deed deed = anyDeed(random);
        auto amount = random.among(kKinds.at(static_cast<std::size_t>(deed)).amounts);
        schedule.push_back({at, deed, static_cast<unsigned>(random(clients)),
                            static_cast<unsigned>(random(1'000)), amount});
        if (deed == Deed::Rest) at += 1'000 * schedule.back().b;
    }
    return schedule;
}

// Leaves out halves, then quarters, and so on, as long as what is left still fails.
Schedule shrink(Schedule schedule, const std::function<bool(const Schedule&)>& stillFails) {
    for (std::size_t piece = (schedule.size() + 1) / 2; piece > 0;) {
        bool shorter = false;
        for (std::size_t at = 0; at < schedule.size();) {
            Schedule rest = schedule;
            const auto first = rest.begin() + static_cast<std::ptrdiff_t>(at);
            rest.erase(first,
                       first + static_cast<std::ptrdiff_t>(std::min(piece, schedule.size() - at)));
            if (stillFails(rest)) {
                schedule = std::move(rest);
                shorter = true;
            } else {
                at += piece;
            }
        }
        if (!shorter || piece > 1) piece = piece > 1 ? (piece + 1) / 2 : 0;
    }
    return schedule;
}

}  // namespace kvx::sim
