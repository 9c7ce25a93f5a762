#include <deque>

#include "Table.h"
#include "Turn.h"

int main(int argc, char** argv) try {
    const long seconds = argc < 4 ? 0 : std::strtol(argv[2], nullptr, 10);
    if (seconds < 1 || seconds > 86400 || std::to_string(seconds) != argv[2]) {
        throw std::invalid_argument("usage: poller NAME SECONDS AGENT=COMMUNITY@ADDRESS...");
    }
    const std::deque<Agent> agents(argv + 3, argv + argc);
    auto service = kvx::Service::open("Poller", {.group = "poller"});
    if (!service) throw std::runtime_error(service.error().message());
    Table table(*service);
    const auto take = [&](const kvx::Message& report) { table.take(report); };
    if (!service->onMessage(Turn::kReports, take)) return 1;
    std::deque<Turn> turns;
    for (const auto& agent : agents) {
        table.expect(agent.name);
        auto& turn = turns.emplace_back(*service, agent, argv[1], static_cast<int>(seconds));
        if (!turn.join()) throw std::invalid_argument(agent.name + ": not a name, or two are");
    }
    // Ticks of a second; sixteen threads, each of which waits for one agent.
    CVekTimedWorkMgr schedule(&service->engine(), 1, 1000, 16, nullptr, FALSE);
    for (auto& turn : turns) schedule.RTWMAddPoll(&turn);
    schedule.RTWMDistributePolls();
    return service->run();
} catch (const std::exception& error) {
    std::fprintf(stderr, "poller: %s\n", error.what());
    return 1;
}
