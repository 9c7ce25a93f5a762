// What a client may do to the server, and what it may not.

#include "rva/HttpServer.h"

#include <fmt/format.h>
#include <httplib.h>

#include "rva/HttpPages.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LinkEnd.h"

namespace kvx::rva {
namespace {

constexpr const char* kToken = "0123456789abcdef";
constexpr const char* kHead = "GET /a.b HTTP/1.1\r\nHost: localhost\r\n";

std::string statusOf(const httplib::Result& result) {
    return result ? std::to_string(result->status) : to_string(result.error());
}

struct HttpServerTest : testing::Test {
    HttpServerTest() {
        pages.add("/a.b", [] { return HttpPages::Page{.body = "hello"}; });
        pages.handle("POST", "/echo", [](const HttpRequest& request, const HttpAnswerPtr& answer) {
            answer->reply({.body = request.body});
        });
        pages.handle("GET", "/kept", [this](const HttpRequest&, const HttpAnswerPtr& answer) {
            answer->start({}, [](auto code, auto) { return std::string(code); });
            const std::lock_guard guard(mutex);
            arrived = answer;
        });
        EXPECT_TRUE(server.start({platform::kLoopbackAddress, 0}));
    }

    test::LinkEnd connect() const { return test::LinkEnd(test::connectedTo(server.port())); }
    // Sends bytes and returns all that comes back until the end of the stream.
    std::string exchange(std::string_view bytes) const {
        auto link = connect();
        link.send({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
        platform::shutdownSending(link.socket());
        const auto answer = link.read(1 << 20);
        return {answer.begin(), answer.end()};
    }
    bool serves() const { return exchange(kHead + std::string("\r\n")).ends_with("\r\n\r\nhello"); }

    std::mutex mutex;
    HttpAnswerPtr arrived;  // guarded by mutex
    HttpPages pages;
    HttpServer server{pages};
};

TEST_F(HttpServerTest, AnswersItsRoutesAndNothingElse) {
    httplib::Client http("127.0.0.1", server.port());
    EXPECT_EQ(http.Get("/a.b")->body, "hello");
    EXPECT_EQ(http.Head("/a.b")->status, 200);
    EXPECT_EQ(http.Get("/a.b?x=1")->status, 200);
    for (const char* path : {"/", "/axb", "/a.b/", "/%2e%2e/etc/passwd"}) {
        EXPECT_EQ(http.Get(path)->status, 404) << path;
    }
    EXPECT_EQ(http.Post("/a.b", std::string(100, 'x'), "text/plain")->status, 405);
    EXPECT_EQ(http.Delete("/a.b")->get_header_value("Allow"), "GET, HEAD");
    for (const char* range : {"bytes=1-2", "bytes=1000-2000", "bytes=-9"}) {
        EXPECT_EQ(http.Get("/a.b", {{"Range", range}})->body, "hello") << range;
    }
    EXPECT_EQ(pages.requests(), 12U);
    for (const char* absolute : {"http://localhost:7/a.b?x=1", "HTTPS://[::1]/a.b"}) {
        const std::string answer =
            exchange(fmt::format("GET {} HTTP/1.1\r\nHost: other.example\r\n\r\n", absolute));
        EXPECT_TRUE(answer.ends_with("\r\n\r\nhello")) << answer;
    }
    const std::string large(1'000'000, 'x');
    EXPECT_EQ(http.Post("/echo", large, "application/json; charset=utf-8")->body, large);
    EXPECT_EQ(http.Post("/echo", {{"Expect", "100-continue"}}, large, "application/json")->body,
              large);
    EXPECT_EQ(statusOf(http.Post("/echo", "{}", "text/plain")), "415");
    HttpServer second(pages);
    EXPECT_FALSE(second.start({platform::kLoopbackAddress, server.port()}));
}

TEST_F(HttpServerTest, RefusesWhatIsNoRequest) {
    const std::string head = kHead;
    const std::string post =
        "POST /echo HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n";
    struct Case {
        std::string bytes;
        const char* status;
    };
    for (const auto& [bytes, status] : std::vector<Case>{
             {std::string(1000000, 'x'), "431"},
             {"GET /" + std::string(20000, 'y') + " HTTP/1.1\r\n\r\n", "431"},
             {head + "X: " + std::string(100000, 'z') + "\r\n\r\n", "431"},
             {post + "Content-Length: 99999999999999999999\r\n\r\n", "400"},
             {post + "Content-Length: 1048577\r\n\r\n", "413"},
             {post + "Content-Length: 2\r\nContent-Length: 3\r\n\r\n{}", "400"},
             {post + "Transfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n", "400"},
             {post + "Content-Length: 3\r\n\r\n{}", "400"},
             {"GET http:///a.b HTTP/1.1\r\nHost: localhost\r\n\r\n", "400"},
             {"GET http://x@localhost/a.b HTTP/1.1\r\n\r\n", "400"},
             {"GET http://evil.example/a.b HTTP/1.1\r\nHost: localhost\r\n\r\n", "403"},
             {"\r\n\r\n", "400"},
             {std::string(64, '\0'), "400"},
             {"GET\r\n\r\n", "400"}}) {
        const std::string answer = exchange(bytes);
        // Of bytes that nobody reads the answer may be lost with the connection.
        EXPECT_TRUE(answer.empty() || answer.starts_with("HTTP/1.1 " + std::string(status) + " "))
            << bytes.substr(0, 40) << "\n"
            << answer.substr(0, 40);
        EXPECT_TRUE(serves()) << bytes.substr(0, 40);
    }
}

TEST_F(HttpServerTest, LetsInOnlyWhoBelongs) {
    HttpPages guarded(Gate({"bus.example"}, kToken));
    guarded.add("/data", [] { return HttpPages::Page{.body = "secret"}; });
    guarded.addFile("/", "text/html", "page");
    HttpServer gate(guarded);
    ASSERT_TRUE(gate.start({platform::kLoopbackAddress, 0}));
    httplib::Client http("127.0.0.1", gate.port());
    const std::string own = "127.0.0.1:" + std::to_string(gate.port());
    const auto get = [&](httplib::Headers headers) { return statusOf(http.Get("/data", headers)); };
    const auto bearer = [](const std::string& token) {
        return std::pair<const std::string, std::string>("Authorization", "Bearer " + token);
    };
    EXPECT_EQ(get({}), "401");
    EXPECT_EQ(get({bearer("0123456789abcdee")}), "401");
    EXPECT_EQ(get({bearer("")}), "401");
    EXPECT_EQ(get({bearer(kToken)}), "200");
    EXPECT_EQ(get({bearer(kToken), {"Host", "BUS.example:443"}}), "200");
    EXPECT_EQ(get({bearer(kToken), {"Host", "[::1]:1"}}), "200");
    EXPECT_EQ(get({bearer(kToken), {"Origin", "http://" + own}}), "200");
    EXPECT_EQ(get({bearer(kToken), {"Sec-Fetch-Site", "same-origin"}}), "200");
    EXPECT_EQ(get({bearer(kToken), {"Sec-Fetch-Site", "cross-site"}}), "403");
    EXPECT_EQ(statusOf(http.Get("/", {{"Sec-Fetch-Site", "cross-site"}})), "200");
    for (const char* host :
         {"evil.example", "localhost.evil.example", "127.0.0.2", "%6cocalhost", ""}) {
        EXPECT_EQ(get({bearer(kToken), {"Host", host}}), "403") << host;
    }
    for (const char* origin :
         {"http://evil.example", "null", "http://localhost", "https://127.0.0.1"}) {
        EXPECT_EQ(get({bearer(kToken), {"Origin", origin}}), "403") << origin;
    }
    const auto page = http.Get("/");
    EXPECT_EQ(page->body, "page");
    EXPECT_NE(page->get_header_value("Content-Security-Policy").find("default-src 'self'"),
              std::string::npos);
    EXPECT_EQ(page->get_header_value("X-Content-Type-Options"), "nosniff");
    EXPECT_EQ(statusOf(http.Get("/unknown")), "401");

    EXPECT_EQ(http.Get("/api/login")->body, "{\"needed\":true,\"in\":false}\n");
    EXPECT_EQ(statusOf(http.Post("/api/login", R"({"token":"x"})", "application/json")), "401");
    const auto in =
        http.Post("/api/login", std::string(R"({"token":")") + kToken + "\"}", "application/json");
    const std::string cookie = in->get_header_value("Set-Cookie");
    EXPECT_NE(cookie.find("HttpOnly; SameSite=Strict"), std::string::npos);
    EXPECT_EQ(cookie.find(kToken), std::string::npos);
    EXPECT_EQ(get({{"Cookie", "a=b; " + cookie.substr(0, cookie.find(';'))}}), "200");
    EXPECT_EQ(get({{"Cookie", "kvx_rva="}}), "401");
}

TEST_F(HttpServerTest, NeitherServesNorStopsLaterForThoseWhoSayNothingOrHalfOfIt) {
    std::vector<test::LinkEnd> idle;
    const auto begin = std::chrono::steady_clock::now();
    const std::string halves[] = {kHead, "",
                                  "POST /echo HTTP/1.1\r\nHost: localhost\r\nContent-Type: "
                                  "application/json\r\nContent-Length: 9\r\n\r\n{"};
    for (std::size_t i = 0; i < 1000; ++i) {
        const std::string& half = halves[i % 3];
        idle.push_back(connect());
        // One that has been closed for a newer one may refuse it.
        idle.back().send(test::ByteVector(half.begin(), half.end()));
        EXPECT_TRUE(i % 50 != 0 || serves()) << i;
    }
    EXPECT_TRUE(serves());
    server.stop();
    // Well before the ten seconds that each of them could take.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(9000));
}

TEST_F(HttpServerTest, GivesALongAnswerWholeToASlowReader) {
    const std::string body(8'000'000, 'x');
    pages.add("/", [&] { return HttpPages::Page{.body = body}; });
    HttpServer large(pages);
    ASSERT_TRUE(large.start({platform::kLoopbackAddress, 0}));
    httplib::Client slow("127.0.0.1", large.port());
    std::size_t got = 0;
    slow.Get("/", [&](const char* data, std::size_t size) {
        if (got == 0) {
            EXPECT_EQ(httplib::Client("127.0.0.1", large.port()).Get("/x")->status, 404);
        }
        got += std::string_view(data, size).size();
        return true;
    });
    EXPECT_EQ(got, body.size());
}

TEST_F(HttpServerTest, StreamsAsFarAsTheClientTakesItAndSaysHowItEnded) {
    const std::string get = "GET /kept HTTP/1.1\r\nHost: localhost\r\n\r\n";
    HttpAnswerPtr kept;
    const auto open = [&] {
        auto link = connect();
        link.send(test::ByteVector(get.begin(), get.end()));
        EXPECT_TRUE(test::eventually([&] {
            const std::lock_guard guard(mutex);
            kept = std::exchange(arrived, nullptr);
            return kept != nullptr;
        }));
        return link;
    };
    const auto rest = [](test::LinkEnd& link) {
        const auto bytes = link.read(64 << 20);
        return std::string(bytes.begin(), bytes.end());
    };
    {
        auto whole = open();
        EXPECT_TRUE(kept->write("one") && kept->offer("two"));
        kept->finish();
        EXPECT_FALSE(kept->offer("late"));
        const std::string text = rest(whole);
        EXPECT_NE(text.find("one"), std::string::npos);
        EXPECT_TRUE(text.ends_with("two\r\n0\r\n\r\n")) << text;
    }
    {
        auto broken = open();
        EXPECT_TRUE(kept->write("one"));
        kept->breakOff();
        const std::string text = rest(broken);
        EXPECT_TRUE(text.ends_with("one\r\n")) << text;
    }
    {
        // Room for a bounded number of bytes; who writes on waits, and ends when the client goes.
        auto slow = open();
        const std::string piece(100'000, 'x');
        std::size_t taken = 0;
        std::atomic<bool> isGone = false;
        kept->onGone([&] { isGone = true; });
        while (kept->offer(piece) && taken < (64U << 20U)) taken += piece.size();
        EXPECT_LT(taken, 64U << 20U);
        std::thread closing([link = std::move(slow)] {});  // closes it
        while (kept->write(piece)) {
        }
        closing.join();
        EXPECT_TRUE(test::eventually([&] { return isGone.load(); }));
        EXPECT_FALSE(kept->isOpen());
        bool isTold = false;
        kept->onGone([&] { isTold = true; });
        EXPECT_TRUE(isTold);
    }
    kept.reset();
    EXPECT_TRUE(serves());
}

TEST_F(HttpServerTest, TellsAReaderThatTookNothingForTooLongWhyItsStreamEnded) {
    HttpServer strict(pages, 1000);
    ASSERT_TRUE(strict.start({platform::kLoopbackAddress, 0}));
    const std::string get = "GET /kept HTTP/1.1\r\nHost: localhost\r\n\r\n";
    const auto slot = std::make_shared<int>(1);
    test::LinkEnd link(test::connectedTo(strict.port()));
    link.send(test::ByteVector(get.begin(), get.end()));
    HttpAnswerPtr kept;
    ASSERT_TRUE(test::eventually([&] {
        const std::lock_guard guard(mutex);
        kept = std::exchange(arrived, nullptr);
        return kept != nullptr;
    }));
    kept->hold(slot);
    while (kept->write(std::string(100'000, 'x'))) {
    }
    EXPECT_EQ(slot.use_count(), 2);  // as long as there is something for the client
    const auto bytes = link.read(16 << 20);
    EXPECT_TRUE(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size())
                    .ends_with("TooSlow\r\n0\r\n\r\n"));
    EXPECT_TRUE(test::eventually([&] { return slot.use_count() == 1; }));
}

TEST_F(HttpServerTest, DropsAReaderThatTakesNothingAndAnswersForABusThatDoesNot) {
    HttpAnswer answer(std::make_shared<platform::WakeUp>());
    answer.expectWithin(std::chrono::seconds(1));
    EXPECT_TRUE(answer.deadline());
    EXPECT_TRUE(answer.giveUp("TimedOut", "nobody"));
    EXPECT_TRUE(answer.take().bytes.starts_with("HTTP/1.1 504 "));
    EXPECT_FALSE(answer.reply({}));

    HttpAnswer slow(std::make_shared<platform::WakeUp>());
    slow.start({}, [](auto code, auto) { return "bye " + std::string(code); });
    while (slow.offer(std::string(10'000, 'x'))) {
    }
    EXPECT_TRUE(slow.giveUp("TooSlow", ""));
    auto last = slow.take();
    while (!last.isWhole) last = slow.take();
    EXPECT_TRUE(last.bytes.ends_with("bye TooSlow\r\n0\r\n\r\n")) << last.bytes.substr(0, 80);
}

}  // namespace
}  // namespace kvx::rva
