// A service whose rows are counters of the messages on COUNT. It numbers its changes; a standby
// keeps its own counters.

#include <cstdio>
#include <map>
#include <string>

#include "kvx/kvx.h"

int main(int argc, char** argv) {
    auto service = kvx::Service::open("Counters", {.group = argc > 1 ? argv[1] : ""});
    if (!service) return 2;
    std::map<std::string, int> counters;
    kvx::Changes& changes = service->changes();
    changes.setKey("", {"name"});
    service->onQuery([&](const kvx::Question&, kvx::Reply& reply) {
        std::map<std::string, int> now;
        const kvx::Stamp stamp = changes.read([&] { now = counters; });
        reply.asOf(stamp, changes.source());
        for (const auto& [name, count] : now) reply.row({{"name", name}, {"count", count}});
    });
    static_cast<void>(service->onMessage("COUNT", [&](const kvx::Message& message) {
        const auto name = message.get<std::string>("name").value_or("");
        const bool isNew = !counters.contains(name);
        const int count = isNew ? 1 : counters[name] + 1;
        const auto apply = [&]() -> kvx::Result<> {
            counters[name] = count;
            return {};
        };
        const auto kind = isNew ? kvx::Change::Inserted : kvx::Change::Changed;
        const kvx::Record row{{"name", name}, {"count", count}};
        if (!changes.commit(kvx::changeRecord(kind, row), apply)) static_cast<void>(apply());
    }));
    service->onRole([](bool active) {
        std::puts(active ? "active" : "standing by");
        std::fflush(stdout);
    });
    return service->run();
}
