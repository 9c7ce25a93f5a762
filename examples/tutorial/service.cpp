#include <kvx/kvx.h>

#include <cstdio>
#include <map>
#include <mutex>

int main() {
    std::mutex mutex;
    std::map<std::string, std::string> links = {{"core-1", "up"}, {"edge-1", "down"}};

    auto service = kvx::Service::open("Links", {.group = "links"});
    if (!service) {
        std::fprintf(stderr, "links: %s\n", service.error().message().c_str());
        return 1;
    }
    service->onQuery([&](const kvx::Question& question, kvx::Reply& reply) {
        const std::lock_guard guard(mutex);
        for (const auto& [link, state] : links) {
            if (question.text != "*" && question.text != link) continue;
            reply.row({{"name", link}, {"state", state}});
        }
    });
    const auto listening = service->onMessage("LINK.STATE", [&](const kvx::Message& report) {
        const auto link = report.get<std::string>("name");
        const auto state = report.get<std::string>("state");
        if (!link || !state) return;
        {
            const std::lock_guard guard(mutex);
            if (std::exchange(links[*link], *state) == *state) return;
        }
        if (service->isActive()) service->notify({{"name", *link}, {"state", *state}});
    });
    service->onRole([](bool active) {
        std::puts(active ? "active" : "standing by");
        std::fflush(stdout);
    });
    return listening ? service->run() : 1;
}
