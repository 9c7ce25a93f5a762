// The main thread is on the bus: it receives beats, advisories and what the daemon answers about
// itself, and records them in `Observations`. The HTTP thread only reads these, so it goes on
// answering while the main thread is blocked in an attempt to reconnect, and a scrape asks nothing.
// For the same reason it is the HTTP thread that gives a supervisor signs of life.

#include "rva/Agent.h"

#include <fmt/format.h>

#include <atomic>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kvx/Client.h"
#include "platform/Supervisor.h"
#include "rva/Api.h"
#include "rva/Console.h"
#include "rva/DaemonWatch.h"
#include "rva/HttpPages.h"
#include "rva/HttpServer.h"
#include "rva/Metrics.h"
#include "rva/Observations.h"
#include "tools/beats/BeatListener.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/HostsQuestion.h"
#include "tools/bus/Output.h"
#include "tools/bus/Ticker.h"

namespace kvx::rva {

namespace {

constexpr unsigned long kWatchMs = 1000;
constexpr unsigned long kHostsMs = 5000;

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

// Asks the bridge who is joined, at the interval of the questions to the daemon.
class HostsWatch {
  public:
    HostsWatch(bus::Client& client, Observations& seen, unsigned intervalSeconds)
        : client_(client), seen_(seen) {
        if (intervalSeconds == 0) return;
        ticker_.emplace(client.net(), 1'000UL * intervalSeconds, bus::Ticker::Repeat::Forever,
                        [this] { ask(); });
    }

  private:
    void ask() {
        if (isWaiting_) return;
        question_.emplace(client_, [this](bus::HostsQuestion::Outcome outcome, const Json& hosts) {
            isWaiting_ = false;
            const bool hasHosts = outcome == bus::HostsQuestion::Outcome::Hosts;
            seen_.showHosts(hasHosts ? hosts : Json::array());
        });
        isWaiting_ = question_->ask(kHostsMs);
    }

    bus::Client& client_;
    Observations& seen_;
    bool isWaiting_ = false;
    std::optional<bus::HostsQuestion> question_;
    std::optional<bus::Ticker> ticker_;
};

// What `kvx services` shows, without what is around it in `/api/services`.
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
    addConsole(pages);
    pages.add(
        "/healthz", [] { return Page{.body = "ok\n"}; }, HttpPages::For::All);
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

// This process as a service that is supervised. Made before there are other threads.
struct Supervised {
    // The HTTP thread says that both threads do their work. A lost daemon is no fault of this
    // process, which need not be started again then: attempts to reconnect may block the main
    // thread for long.
    void tellBy(HttpServer& server, const Observations& seen) {
        if (!aliveEvery) return;
        server.callEvery(*aliveEvery, [this, &seen] {
            const Milliseconds sinceTurn = platform::monotonicMs() - turnedAt;
            const bool turns = sinceTurn <= *aliveEvery + static_cast<Milliseconds>(kWatchMs);
            if (turns || !seen.isReady()) platform::tellAlive();
        });
    }
    void turn() { turnedAt = platform::monotonicMs(); }

    std::string error;  // in what it was given
    std::vector<platform::PassedSocket> sockets = platform::takePassedSockets(error);
    const std::optional<Milliseconds> aliveEvery = platform::aliveInterval();
    std::atomic<Milliseconds> turnedAt = platform::monotonicMs();  // the main thread's loop
};

// A socket that was passed counts before all else. Returns an empty text, or the error.
std::string takePassed(const Supervised& supervised, ListenAddress& address) {
    if (!supervised.error.empty()) return supervised.error;
    if (supervised.sockets.empty()) return {};
    const platform::PassedSocket& passed = supervised.sockets.front();
    if (supervised.sockets.size() > 1 || !passed.path.empty()) {
        return "it serves at one TCP socket, and was started with others";
    }
    if (address.address != passed.endpoint.address) {
        address.address = passed.endpoint.address;
        address.host = platform::dottedAddress(address.address);
    }
    address.port = passed.endpoint.port;
    return {};
}

bool startServing(HttpServer& server, const ListenAddress& address, Supervised& supervised) {
    if (supervised.sockets.empty()) return server.start({address.address, address.port});
    return server.start(platform::Socket(supervised.sockets.front().socket.release()));
}

// Chooses where to serve: the option, else the configuration file's item, else the default.
// Returns an empty text, or the error in the item.
std::string chooseAddress(const Options& options, CVekRvNet& net, ListenAddress& address) {
    const CVekAtom* const configured = net.m_cfgParser.RRCPGetRVAPort();
    address = options.listen.value_or(ListenAddress());
    if (options.listen || configured == nullptr) return {};
    const std::string problem = parseListen(configured->RAString(), address);
    return problem.empty() ? problem : "configuration item rva: " + problem;
}

// Where to serve and for whom. Returns an empty text, or the error.
std::string chooseAccess(const Options& options, CVekRvNet& net, const Supervised& supervised,
                         ListenAddress& address, std::string& token) {
    if (auto problem = chooseAddress(options, net, address); !problem.empty()) return problem;
    if (auto problem = takePassed(supervised, address); !problem.empty()) return problem;
    if (!options.tokenFile.empty()) return readToken(options.tokenFile, token);
    if (address.isLoopback()) return {};
    return fmt::format("-listen tcp:{}:{} is not of the loopback only: it needs -token-file FILE",
                       address.host, address.port);
}

Gate gateFor(const Options& options, const ListenAddress& address, std::string token) {
    std::vector<std::string> hosts = options.hosts;
    hosts.push_back(address.host);
    return {std::move(hosts), std::move(token)};
}

}  // namespace

int run(const Options& options) {
    Supervised supervised;
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    ListenAddress address;
    std::string token;
    if (auto problem = chooseAccess(options, client.net(), supervised, address, token);
        !problem.empty()) {
        bus::complain(problem);
        return kUsage;
    }
    Observations seen(client.daemon(), options.connection.domainOrDefault());
    seen.setInterval(options.intervalSeconds);
    seen.gainSession();
    std::optional<DaemonWatch> daemon;
    Feed feed(client.net(), seen);
    Listens listens(client.net());
    client.onDaemonChange([&](bool isThere) {
        supervised.turn();
        isThere ? seen.gainSession() : seen.loseSession();
        if (daemon) isThere ? daemon->gain() : daemon->lose();
        feed.tellBus();
        listens.tell(eventText("bus", seen.connectionJson()));
    });
    beats::BeatListener beatListener(
        [&seen](auto packet) { seen.hearPacket(packet, platform::monotonicMs()); },
        [&seen](const auto& beat) { seen.hearMember(beat, platform::monotonicMs()); });
    AdvisoryListener advisories(seen);
    if (!beatListener.listen(client.net()) ||
        client.net().RRNAddExService("_RV.>", &advisories) != kOk) {
        bus::complain("cannot listen on the bus");
        return kFailure;
    }
    auto asking = kvx::Client::onThisThread(client.net(), {.onWarning = bus::complain});
    if (!asking) {
        bus::complain(asking.error().message());
        return kFailure;
    }
    Queries queries(*asking);
    BusCalls calls(client.net());
    Api api(seen, queries, calls, listens, feed);
    HttpPages pages(gateFor(options, address, std::move(token)));
    addPages(pages, seen);
    api.addTo(pages);
    HttpServer server(pages);
    supervised.tellBy(server, seen);
    if (!startServing(server, address, supervised)) {
        bus::complain(
            fmt::format("cannot listen on {}:{}; is the port taken?", address.host, address.port));
        return kFailure;
    }
    const bus::Ticker watch(client.net(), kWatchMs, bus::Ticker::Repeat::Forever, [&] {
        supervised.turn();
        if (server.isServing()) return;
        bus::complain("the HTTP server has ended");
        client.leave(kFailure);
    });
    if (options.intervalSeconds != 0) {
        daemon.emplace(client.net(), options.intervalSeconds,
                       [&](const DaemonFigures& figures, bool isRound) {
                           seen.showDaemon(figures);
                           feed.tellTraffic();
                           if (isRound) feed.tellHistory(seen.note());
                       });
    }
    const HostsWatch hosts(client, seen, options.intervalSeconds);
    // Printed when a signal ends the process in order.
    const int status = client.runUntilSignal([&] {
        bus::printLine(fmt::format("rva ready on http://{}:{}", address.host, server.port()));
        if (!bus::flushOutput()) client.leave(kFailure);
        platform::tellReady();
    });
    client.onDaemonChange(nullptr);
    server.stop();
    queries.end();
    return status;
}

}  // namespace kvx::rva
