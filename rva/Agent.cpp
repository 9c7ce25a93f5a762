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

int failure(const std::string& problem) {
    bus::complain(problem);
    return kFailure;
}

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

// Where to serve and for whom.
struct Access {
    ListenAddress address;
    std::string token;
};

// Returns an empty text, or the error.
std::string chooseAccess(const Options& options, CVekRvNet& net, const Supervised& supervised,
                         Access& access) {
    ListenAddress& address = access.address;
    if (auto problem = chooseAddress(options, net, address); !problem.empty()) return problem;
    if (auto problem = takePassed(supervised, address); !problem.empty()) return problem;
    if (!options.tokenFile.empty()) return readToken(options.tokenFile, access.token);
    if (address.isLoopback()) return {};
    return fmt::format("-listen tcp:{}:{} is not of the loopback only: it needs -token-file FILE",
                       address.host, address.port);
}

Gate gateFor(const Options& options, const Access& access) {
    std::vector<std::string> hosts = options.hosts;
    hosts.push_back(access.address.host);
    return {std::move(hosts), access.token};
}

// What is heard on the bus, and the streams that tell it. Bus thread only, but for what `Feed` and
// `Listens` state.
class Hearing {
  public:
    // Both must outlive this object, and the loop of `client` have ended before it is destroyed.
    Hearing(bus::Client& client, const Options& options, Supervised& supervised)
        : seen(client.daemon(), options.connection.domainOrDefault()),
          feed(client.net(), seen),
          listens(client.net()),
          client_(client),
          supervised_(supervised),
          intervalSeconds_(options.intervalSeconds) {
        seen.setInterval(intervalSeconds_);
        seen.gainSession();
        client.onDaemonChange([this](bool isThere) { changeDaemon(isThere); });
    }
    ~Hearing() { client_.onDaemonChange(nullptr); }
    Hearing(const Hearing&) = delete;
    Hearing& operator=(const Hearing&) = delete;

    bool listen() {
        return beatListener_.listen(client_.net()) &&
               client_.net().RRNAddExService("_RV.>", &advisories_) == kOk;
    }

    // Asks the daemon and the bridge about themselves, again and again.
    void ask() {
        hosts_.emplace(client_, seen, intervalSeconds_);
        if (intervalSeconds_ == 0) return;
        daemon_.emplace(client_.net(), intervalSeconds_,
                        [this](const DaemonFigures& figures, bool isRound) {
                            seen.showDaemon(figures);
                            feed.tellTraffic();
                            if (isRound) feed.tellHistory(seen.note());
                        });
    }

    Observations seen;
    Feed feed;
    Listens listens;

  private:
    void changeDaemon(bool isThere) {
        supervised_.turn();
        isThere ? seen.gainSession() : seen.loseSession();
        if (daemon_) isThere ? daemon_->gain() : daemon_->lose();
        feed.tellBus();
        listens.tell(eventText("bus", seen.connectionJson()));
    }

    bus::Client& client_;
    Supervised& supervised_;
    const unsigned intervalSeconds_;
    beats::BeatListener beatListener_{
        [this](auto packet) { seen.hearPacket(packet, platform::monotonicMs()); },
        [this](const auto& beat) { seen.hearMember(beat, platform::monotonicMs()); }};
    AdvisoryListener advisories_{seen};
    std::optional<DaemonWatch> daemon_;
    std::optional<HostsWatch> hosts_;
};

// Serves until a signal. The exit status.
int serve(bus::Client& client, Hearing& hearing, Queries& queries, HttpPages& pages,
          const ListenAddress& address, Supervised& supervised) {
    BusCalls calls(client.net());
    Api api(hearing.seen, queries, calls, hearing.listens, hearing.feed);
    addPages(pages, hearing.seen);
    api.addTo(pages);
    HttpServer server(pages);
    supervised.tellBy(server, hearing.seen);
    if (!startServing(server, address, supervised)) {
        return failure(
            fmt::format("cannot listen on {}:{}; is the port taken?", address.host, address.port));
    }
    const bus::Ticker watch(client.net(), kWatchMs, bus::Ticker::Repeat::Forever, [&] {
        supervised.turn();
        if (!server.isServing()) client.leave(failure("the HTTP server has ended"));
    });
    hearing.ask();
    // Printed when a signal ends the process in order.
    const int status = client.runUntilSignal([&] {
        bus::printLine(fmt::format("rva ready on http://{}:{}", address.host, server.port()));
        if (!bus::flushOutput()) client.leave(kFailure);
        platform::tellReady();
    });
    server.stop();
    queries.end();
    return status;
}

}  // namespace

int run(const Options& options) {
    Supervised supervised;
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    Access access;
    if (auto problem = chooseAccess(options, client.net(), supervised, access); !problem.empty()) {
        bus::complain(problem);
        return kUsage;
    }
    Hearing hearing(client, options, supervised);
    if (!hearing.listen()) return failure("cannot listen on the bus");
    auto asking = kvx::Client::onThisThread(client.net(), {.onWarning = bus::complain});
    if (!asking) return failure(asking.error().message());
    Queries queries(*asking);
    HttpPages pages(gateFor(options, access));
    return serve(client, hearing, queries, pages, access.address, supervised);
}

}  // namespace kvx::rva
