#pragma once

#include <sys/socket.h>

#include <nlohmann/json.hpp>

#include "tests/support/NatsServer.h"
#include "tests/support/RawClient.h"
#include "tests/system/Installation.h"

namespace kvx::test {

using Json = nlohmann::json;
using Texts = std::vector<std::string>;
using namespace std::chrono_literals;

constexpr const char* kBridge = KVX_BIN_DIR "/rvbridge";

/// A session whose reads end after 20 s, as if the daemon had closed.
inline RawClient sessionAt(const Daemon& daemon, const std::string& service = "") {
    RawClient client = RawClient::session(daemon.port(), service.c_str());
    const timeval limit{20, 0};
    setsockopt(client.socket(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return client;
}

/// A daemon, its bridge and its programs.
class Host {
  public:
    /// The bridges of all but Berlin reach their daemons over TCP.
    Host(std::string name, const std::string& engines, const Texts& options = {})
        : name_(std::move(name)), options_{"-host",
                                           name_,
                                           "-engine",
                                           engines,
                                           "-daemon",
                                           name_ == "berlin" ? bus_.unixText() : text()} {
        options_.insert(options_.end(), options.begin(), options.end());
        startBridge();
    }

    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] std::string text() const { return bus_.daemonText(); }
    /// Its programs, all but the bridge.
    Installation& bus() { return bus_; }
    Daemon& daemon() { return bus_.daemon(); }
    ChildProcess& bridge() { return *bridge_; }
    /// Kills the one that runs.
    void startBridge() { bridge_.emplace(kBridge, options_); }
    /// Once the bridge is ready.
    RawClient session(const std::string& service = "") {
        if (bridge_->awaitOutput("rvbridge ready as " + name_).empty()) {
            throw std::runtime_error("rvbridge is not ready: " + bridge_->errors());
        }
        return sessionAt(daemon(), service);
    }
    RawClient listener(const Texts& subjects, const std::string& service = "") {
        RawClient client = session(service);
        for (const auto& subject : subjects) client.listen(subject);
        return client;
    }

    /// What `kvx hosts --json` says of another host, or of this one.
    Json about(const std::string& host) {
        std::istringstream lines(bus_.kvx({"hosts", "--json"}).output);
        for (std::string line; std::getline(lines, line);) {
            if (const Json json = Json::parse(line); json["host"] == host) return json;
        }
        return {{"subjects", -1}};
    }
    /// Waits until the daemon passes on what `count` subjects of each of these hosts want: the
    /// bridge's answer in `service` leaves after its listens. At most 10 s.
    void awaitInterest(const std::map<std::string, int>& hosts, const std::string& service = "") {
        RawClient asker = listener({"_RVD.ANSWER"}, service);
        EXPECT_TRUE(eventually([&] { return isKnown(hosts, asker); }, 10s)) << bridge_->errors();
    }
    /// The same of all that the others' sessions listen to, whatever it is.
    void awaitInterestOf(Host& other) {
        RawClient asker = listener({"_RVD.ANSWER"});
        RawClient there = other.listener({"_RVD.ANSWER"});
        EXPECT_TRUE(eventually(
            [&] {
                const int subjects = answer(there)[0]["subjects"];
                return isKnown({{other.name_, subjects}}, asker);
            },
            10s))
            << bridge_->errors();
    }
    /// Both know what the other wants.
    static void awaitInterestOfBoth(Host& one, Host& other) {
        one.awaitInterestOf(other);
        other.awaitInterestOf(one);
    }
    /// A member of a group, whose only row names this host, once it stands by.
    std::unique_ptr<ChildProcess> startMember() {
        session();
        const std::string csv = bus_.file("devices.csv", "name\n" + name_ + '\n');
        auto member = bus_.start(
            "modeld", {"--db", bus_.path("model.db"), "--table", "devices", "--load", csv});
        EXPECT_NE(member->awaitError("standing by on"), "") << member->errors();
        return member;
    }
    /// The rows that the group answers here.
    std::string ask() {
        const Ended ended =
            bus_.kvx({"query", "Model", "select name from devices", "--timeout", "30", "--csv"});
        return ended.status == 0 ? ended.output.substr(sizeof "name") : ended.errors;
    }
    void awaitGone(const std::string& host) {
        EXPECT_TRUE(eventually([&] { return about(host)["up"] == false; })) << bridge_->errors();
    }

  private:
    // What the bridge says of the hosts, its own first.
    static Json answer(RawClient& asker) {
        asker.publish("_RVD.HOSTS", "", "_RVD.ANSWER");
        return Json::parse(asker.expectText());
    }
    static bool isKnown(const std::map<std::string, int>& hosts, RawClient& asker) {
        std::size_t found = 0;
        for (const Json& host : answer(asker)) {
            const auto at = hosts.find(host["host"].get<std::string>());
            if (at != hosts.end() && host["up"] == true && host["subjects"] == at->second) ++found;
        }
        return found == hosts.size();
    }

    const std::string name_;
    Installation bus_;
    Texts options_;
    std::optional<ChildProcess> bridge_;
};

/// What a session hears up to the message "end", which it leaves out.
inline Texts textsToTheEnd(RawClient& client) {
    Texts texts;
    for (std::string text = client.expectText(); text != "end"; text = client.expectText()) {
        texts.push_back(text);
    }
    return texts;
}

/// Publishes until the listener hears some of it, at most 10 s.
inline testing::AssertionResult isHeardSoon(RawClient& sender, RawClient& listener) {
    static int rounds = 0;
    const std::string probe = "probe " + std::to_string(++rounds);
    const auto isHeard = [&] {
        sender.publish("PROBE", probe);
        while (platform::waitSocket(listener.socket(), platform::kReadable, 50).ready != 0) {
            if (listener.expectText() == probe) return true;
        }
        return false;
    };
    return eventually(isHeard, 10s) ? testing::AssertionSuccess()
                                    : testing::AssertionFailure() << "deaf";
}

/// Numbered messages on three subjects, from one host to another where nobody listens yet.
class Stream {
  public:
    Stream(Host& from, Host& to)
        : from_(from),
          to_(to),
          subject_(to.name() + '.'),
          listener_(to.listener({subject_ + '*'})),
          sender_(from.session()) {
        from.awaitInterest({{to.name(), 1}});
        send(3);  // a subject counts from its first message on
        for (const char* text : {"0", "1", "2"}) EXPECT_EQ(listener_.expectText(), text);
    }

    /// Each of at least so many bytes.
    void send(int count, std::size_t bytes = 0) {
        for (; count > 0; --count, ++sent_) {
            std::string text = std::to_string(sent_);
            if (text.size() < bytes) text.append(bytes - text.size(), ' ');
            sender_.publish(subject_ + std::to_string(sent_ % 3), text);
        }
    }
    /// Waits until the bridge has all of it, so that the daemon has nothing to drop.
    void awaitTaken() {
        EXPECT_TRUE(
            eventually([&] { return from_.about(to_.name())["out"]["messages"] == sent_; }));
    }
    /// Hears each message once in order, or of its loss.
    void expectHeardOrTold() {
        try {
            while (heard_ + told_ < sent_) hear();
        } catch (const std::runtime_error&) {
            FAIL() << heard_ << " heard and " << told_ << " told of " << sent_ << '\n'
                   << from_.bridge().errors() << to_.bridge().errors();
        }
        EXPECT_EQ(heard_ + told_, sent_);
        expectNothingMore();
    }
    /// The same of a host that was forgotten for a while and is back: what was sent meanwhile is
    /// not told.
    void expectHeardOrLost() {
        send(3);  // each subject tells what is missing before its next message
        while (last_ + 1 < static_cast<int>(sent_)) hear();
        EXPECT_LE(heard_ + told_, sent_);
        expectNothingMore();
    }
    [[nodiscard]] std::uint64_t told() const { return told_; }

  private:
    void hear() {
        const Received next = listener_.expectNext();
        if (const auto loss = lossIn(next)) {
            EXPECT_EQ(loss->cause, "link");
            told_ += loss->messages;
            return;
        }
        ++heard_;
        EXPECT_GT(std::stoi(next.text), last_);
        last_ = std::stoi(next.text);
    }
    void expectNothingMore() {
        sender_.publish(subject_ + '0', "end");
        EXPECT_EQ(textsToTheEnd(listener_), Texts{});
    }

    Host& from_;
    Host& to_;
    const std::string subject_;
    RawClient listener_;
    RawClient sender_;
    std::uint64_t sent_ = 0;
    std::uint64_t heard_ = 3;
    std::uint64_t told_ = 0;
    int last_ = 2;
};

class TwoHosts : public testing::Test {
  protected:
    NatsServer nats_;
    Host berlin_{"berlin", nats_.url()};
    Host paris_{"paris", nats_.url()};
};

}  // namespace kvx::test
