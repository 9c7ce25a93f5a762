// What a client may do to the server, and what it may not.

#include "rva/HttpServer.h"

#include <httplib.h>

#include "rva/HttpPages.h"
#include "tests/support/LinkEnd.h"

namespace kvx::rva {
namespace {

struct HttpServerTest : testing::Test {
    HttpServerTest() {
        pages.add("/a.b", [] { return HttpPages::Page{.body = "hello"}; });
        EXPECT_TRUE(server.start(0));
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
    bool serves() const { return exchange("GET /a.b HTTP/1.1\r\n\r\n").ends_with("\r\n\r\nhello"); }

    HttpPages pages;
    HttpServer server{[this](auto request) { return pages.answer(request); }};
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
    HttpServer second([](auto) { return std::string(); });
    EXPECT_FALSE(second.start(server.port()));
}

TEST_F(HttpServerTest, SurvivesWhatIsNoRequest) {
    const std::string head = "GET /a.b HTTP/1.1\r\n";
    for (const std::string& bytes :
         {std::string(1000000, 'x'), "GET /" + std::string(20000, 'y') + " HTTP/1.1\r\n\r\n",
          head + "X: " + std::string(100000, 'z') + "\r\n\r\n",
          head + "Range: bytes=" + std::string(8000, '1') + "\r\n\r\n",
          head + "Content-Length: 99999999999999999999\r\n\r\n", std::string("\r\n\r\n"),
          std::string(64, '\0'), std::string("GET\r\n\r\n")}) {
        exchange(bytes);
        EXPECT_TRUE(serves()) << bytes.substr(0, 40);
    }
    std::string headers = head;
    for (int i = 0; i < 5000; ++i) headers += "N" + std::to_string(i) + ": v\r\n";
    EXPECT_EQ(exchange(headers + "\r\n").find("hello"), std::string::npos);
    EXPECT_TRUE(serves());
}

TEST_F(HttpServerTest, NeitherServesNorStopsLaterForThoseWhoSayNothingOrHalfOfIt) {
    std::vector<test::LinkEnd> idle;
    const auto begin = std::chrono::steady_clock::now();
    const std::string half = "GET /a.b HTTP/1.1\r\n";
    for (int i = 0; i < 200; ++i) {
        idle.push_back(connect());
        if (i % 2 == 0) idle.back().send(test::ByteVector(half.begin(), half.end()));
        EXPECT_TRUE(i % 20 != 0 || serves()) << i;
    }
    EXPECT_TRUE(serves());
    server.stop();
    // Well before the five seconds that each of them could take.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4500));
}

TEST_F(HttpServerTest, GivesALongAnswerWholeToASlowReader) {
    const std::string body(8'000'000, 'x');
    pages.add("/", [&] { return HttpPages::Page{.body = body}; });
    HttpServer large([this](auto request) { return pages.answer(request); });
    ASSERT_TRUE(large.start(0));
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

}  // namespace
}  // namespace kvx::rva
