// The main thread is on the bus: it receives beats, advisories and what the daemon answers about
// itself, and records them in `Observations`. The HTTP thread only reads these, so it goes on
// answering while the main thread is blocked in an attempt to reconnect, and a scrape asks nothing.

#include "rva/Agent.h"

#include <fmt/format.h>

#include <optional>
#include <string>
#include <string_view>

#include "rva/DaemonWatch.h"
#include "rva/HttpPages.h"
#include "rva/HttpServer.h"
#include "rva/Metrics.h"
#include "rva/Observations.h"
#include "tools/beats/BeatListener.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/bus/Ticker.h"

namespace kvx::rva {

namespace {

constexpr unsigned long kWatchMs = 1000;
constexpr const char* kIndex =
    "rva, the bus agent\n"
    "\n"
    "/healthz        ok while the agent lives\n"
    "/readyz         ready while the bus session is up, 503 while it is lost\n"
    "/services.json  the services whose heartbeats are heard\n"
    "/metrics        figures of the agent and the daemon, for Prometheus\n";
constexpr const char* kJsonType = "application/json; charset=utf-8";

// The bus's advisories, which the session delivers like messages.
class AdvisoryListener : public RvDataCallback {
  public:
    explicit AdvisoryListener(Observations& seen) : seen_(seen) {}
    void onData(const char* subject, RvSender*, const RvDatum&, RvListener*) override {
        seen_.hearAdvisory(subject);
    }

  private:
    Observations& seen_;
};

std::string servicesDocument(Observations& seen) {
    const Milliseconds now = platform::monotonicMs();
    std::string document = "{\"services\":[";
    std::string_view separator = "\n";
    for (const auto& service : seen.services(now)) {
        document.append(separator).append(beats::serviceAsJson(service, now));
        separator = ",\n";
    }
    return document + "\n]}\n";
}

void addPages(HttpPages& pages, Observations& seen) {
    using Page = HttpPages::Page;
    const std::int64_t start = platform::wallSeconds();
    pages.add("/", [] { return Page{.body = kIndex}; });
    pages.add("/healthz", [] { return Page{.body = "ok\n"}; });
    pages.add("/readyz", [&seen] {
        return seen.isReady() ? Page{.body = "ready\n"}
                              : Page{.status = 503, .body = "the bus session is lost\n"};
    });
    pages.add("/services.json",
              [&seen] { return Page{.type = kJsonType, .body = servicesDocument(seen)}; });
    pages.add("/metrics", [&seen, &pages, start] {
        return Page{.type = kMetricsType,
                    .body = metricsText({seen.figures(platform::monotonicMs()), pages.requests(),
                                         platform::processFigures(), start})};
    });
}

// Chooses the port: the option, else the configuration file's item, else the default. Returns an
// empty text, or the error in the item.
std::string choosePort(const Options& options, CVekRvNet& net, std::uint16_t& port) {
    const CVekAtom* const configured = net.m_cfgParser.RRCPGetRVAPort();
    port = options.port.value_or(kDefaultPort);
    if (options.port || configured == nullptr) return {};
    return parseListen(configured->RAString(), port);
}

}  // namespace

int run(const Options& options) {
    Observations seen;
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    std::uint16_t port = 0;
    if (const auto problem = choosePort(options, client.net(), port); !problem.empty()) {
        bus::complain("configuration item rva: " + problem);
        return kUsage;
    }
    seen.gainSession();
    std::optional<DaemonWatch> daemon;
    client.onDaemonChange([&seen, &daemon](bool isThere) {
        isThere ? seen.gainSession() : seen.loseSession();
        if (daemon) isThere ? daemon->gain() : daemon->lose();
    });
    beats::BeatListener beatListener(
        [&seen](auto packet) { seen.hearPacket(packet, platform::monotonicMs()); });
    AdvisoryListener advisories(seen);
    if (!beatListener.listen(client.net()) ||
        client.net().RRNAddExService("_RV.>", &advisories) != kOk) {
        bus::complain("cannot listen on the bus");
        return kFailure;
    }
    HttpPages pages;
    addPages(pages, seen);
    HttpServer server([&pages](auto request) { return pages.answer(request); });
    if (!server.start(port)) {
        bus::complain(fmt::format("cannot listen on 127.0.0.1:{}; is the port taken?", port));
        return kFailure;
    }
    const bus::Ticker watch(client.net(), kWatchMs, bus::Ticker::Repeat::Forever, [&] {
        if (server.isServing()) return;
        bus::complain("the HTTP server has ended");
        client.leave(kFailure);
    });
    if (options.intervalSeconds != 0) {
        daemon.emplace(client.net(), options.intervalSeconds,
                       [&seen](const DaemonFigures& figures) { seen.showDaemon(figures); });
    }
    // Printed when a signal ends the process in order.
    return client.runUntilSignal([&] {
        bus::printLine(fmt::format("rva ready on http://127.0.0.1:{}", server.port()));
        if (!bus::flushOutput()) client.leave(kFailure);
    });
}

}  // namespace kvx::rva
