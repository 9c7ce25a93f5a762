#include "tests/sim/World.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>

namespace kvx::sim {

namespace {
constexpr std::uint64_t kMaxSteps = 5'000'000;  // of one run: more is a program that spins
constexpr Milliseconds kNever = std::numeric_limits<Milliseconds>::max();
}  // namespace

std::uint64_t Random::operator()(std::uint64_t bound) {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15);
    z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27U)) * 0x94D049BB133111EB;
    return (z ^ (z >> 31U)) % bound;
}

Program& World::start(std::string name, std::function<void()> body) {
    auto made = std::make_unique<Program>();
    Program& program = *made;
    program.number = static_cast<unsigned>(programs.size());
    program.name = std::move(name);
    program.fibre = std::make_unique<Fibre>([&program, body = std::move(body)] {
        const Charge charge(&program.account);
        body();
    });
    programs.push_back(std::move(made));
    return program;
}

bool World::step(Milliseconds limit) {
    std::vector<Program*> ready;
    const Milliseconds change = network.nextChange(now);
    Milliseconds next = change == 0 ? kNever : change;
    for (const auto& program : programs) {
        if (program->fibre->ended()) continue;
        if (program->frozenUntil > now) {
            next = std::min(next, program->frozenUntil);
        } else if (program->until <= now || (program->ready != nullptr && (*program->ready)())) {
            ready.push_back(program.get());
        } else {
            next = std::min(next, program->until);
        }
    }
    if (now >= limit) return false;
    if (ready.empty()) {
        now = std::min(next, limit);
        return true;
    }
    if (++steps_ > kMaxSteps) fail("some program spins: " + whoIsLeft());
    if (random.oneIn(8)) ++now;
    running_ = random.among(ready);
    trace = (trace ^ (running_->number + static_cast<std::uint64_t>(now) * 16)) * 0x100000001B3;
    running_->fibre->resume();
    running_ = nullptr;
    return true;
}

bool World::wait(const Ready& ready, Milliseconds timeout) {
    const Harness harness;
    if (ready() && !random.oneIn(4)) return true;
    Program& self = *running_;
    self.ready = &ready;
    self.until = timeout < 0 ? kNever : now + timeout;
    Fibre::yield();
    self.ready = nullptr;
    return ready();
}

std::uint64_t World::processorTime() {
    return processorTime_ += random.oneIn(slowness) ? 1'000'000 : random(20'000);
}

std::string World::whoIsLeft() const {
    std::string names;
    for (const auto& program : programs)
        if (!program->fibre->ended()) names += (names.empty() ? "" : ", ") + program->name;
    return names;
}

void World::fail(const std::string& what) {
    const Harness harness;
    report(std::to_string(now) + " ms: " + what);
    _exit(1);
}

void World::note(const std::string& what) {
    if (!verbose) return;
    const Harness harness;
    std::fprintf(stderr, "%lld %s: %s\n", static_cast<long long>(now),
                 running_ == nullptr ? "world" : running_->name.c_str(), what.c_str());
}

}  // namespace kvx::sim
