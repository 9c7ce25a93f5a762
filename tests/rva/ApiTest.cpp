// The HTTP interface as a program of another language sees it, against a real agent and daemon.

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "kvx/Record.h"
#include "rva/RowWriter.h"
#include "tests/rva/AgentFixture.h"
#include "tests/rva/Schema.h"
#include "tests/support/LinkEnd.h"
#include "tools/bus/MessageJson.h"

namespace kvx::test {
namespace {

using bus::Json;

struct ApiTest : AgentFixture {
    static httplib::Result post(int port, const std::string& path, const Json& body) {
        return httplib::Client("127.0.0.1", port).Post(path, body.dump(), "application/json");
    }
    static httplib::Result sendText(int port, const std::string& body) {
        return httplib::Client("127.0.0.1", port).Post("/api/send", body, "application/json");
    }
    static int statusOfEmpty(int port, const std::string& path) {
        const auto result = post(port, path, Json::object());
        return result ? result->status : -1;
    }
    static std::string codeIn(const httplib::Result& result) {
        return result ? Json::parse(result->body).at("error").at("code").get<std::string>() : "";
    }
    // Reads a stream until it holds `last`; what came.
    static std::string listenUntil(int port, const std::string& path, const std::string& last,
                                   const std::function<void()>& whenListening) {
        std::string text;
        bool isListening = false;
        httplib::Client("127.0.0.1", port).Get(path, [&](const char* data, std::size_t size) {
            text.append(data, size);
            if (!isListening && text.find("event: listening") != std::string::npos) {
                isListening = true;
                whenListening();
            }
            return text.find(last) == std::string::npos;
        });
        return text;
    }
    // A client that has sent its request and read nothing yet.
    static LinkEnd requested(int port, const std::string& line, const std::string& body = {}) {
        LinkEnd link(connectedTo(static_cast<std::uint16_t>(port)));
        const std::string request = fmt::format(
            "{} HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"
            "Content-Length: {}\r\n\r\n{}",
            line, body.size(), body);
        link.send(ByteVector(request.begin(), request.end()));
        return link;
    }
    static std::string statusIn(LinkEnd link) {
        const auto line = link.read(12);
        return {line.begin() + 9, line.end()};
    }
    static bool readUntil(LinkEnd& link, std::string_view last) {
        std::string text;
        while (!text.ends_with(last)) {
            const auto byte = link.read(1);
            if (byte.empty()) return false;
            text += static_cast<char>(byte[0]);
        }
        return true;
    }
    void expectSound(const std::string& schema, const Json& value) const {
        EXPECT_EQ(schemas_.problem(schema, value), "") << value.dump().substr(0, 300);
    }
    // The data of all events are of the schemas that belong to their names.
    void expectSoundEvents(const std::string& events) const {
        static const std::map<std::string, std::string> kSchemas = {
            {"bus", "Connection"},      {"services", "ServiceChanges"},
            {"traffic", "Bus"},         {"history", "HistoryEntry"},
            {"message", "Message"},     {"dropped", "Dropped"},
            {"listening", "Listening"}, {"end", "Error"}};
        std::istringstream in(events);
        std::string name;
        for (std::string line; std::getline(in, line);) {
            if (line.starts_with("event: ")) name = line.substr(7);
            // The last one may have been cut off.
            if (!line.starts_with("data: ") || in.eof()) continue;
            ASSERT_TRUE(kSchemas.contains(name)) << name;
            expectSound(kSchemas.at(name), Json::parse(line.substr(6)));
        }
    }
    static Json messageIn(const std::string& events) {
        const auto begin = events.find("data: ", events.find("event: message")) + 6;
        return Json::parse(events.substr(begin, events.find('\n', begin) - begin));
    }

    const Schemas schemas_{contentOf(KVX_SOURCE_DIR "/docs/openapi.json")};
};

// What docs/http.md has a row for, with its limits.
const Json& everyType() {
    static const Json kFields = Json::parse(R"([
        ["string",""],["string","gr\u00fc\u00df \n\u0001"],["string",{"base64":"/wA="}],
        ["string",{"base64":"YQBiAA=="}],["string",{"base64":"YWI="}],
        ["bool",true],["bool",false],["bool",7],
        ["i8",-128],["i16",-32768],["i32",-2147483648],["i64",9007199254740991],
        ["i64","-9223372036854775808"],["u8",255],["u16",65535],["u32",4294967295],
        ["u64","18446744073709551615"],["f32",0.5],["f32","NaN"],["f32","NaN:7fc00001"],
        ["f64",0.1],["f64",-0.0],["f64",1e300],["f64","Infinity"],["f64","-Infinity"],
        ["f64","NaN:fff8000000000000"],["ip","192.0.2.255"],["port",65535],
        ["datetime","1969-12-31T23:59:59.999999Z"],["datetime","2106-02-07T06:28:15.000000Z"],
        ["datetime",{"words":[1,2,16777215]}],["subject","NEWS.*.>"],["subject",{"base64":"AAMA"}],
        ["opaque",""],["opaque","AAH/"],["encrypted","AAAACZlV7rsI"],["type 77",null],
        ["message",[]],["message",[{"name":"a","type":"message","value":[
            {"name":{"base64":"/w=="},"type":"u8","value":1}]}]]])");
    return kFields;
}

TEST_F(ApiTest, SendsWhatItHearsWithoutLoss) {
    const int port = start();
    Json fields = Json::array();
    for (const Json& one : everyType()) {
        fields.push_back({{"name", "n"}, {"type", one[0]}, {"value", one[1]}});
    }
    const Json message = {
        {"subject", "NEWS.ROME"}, {"reply", "BACK"}, {"type", "message"}, {"fields", fields}};
    const Json datum = {
        {"subject", "NEWS.ROME"}, {"reply", nullptr}, {"type", "opaque"}, {"value", "AAE="}};
    for (const Json& sent : {message, datum}) {
        const std::string events =
            listenUntil(port, "/api/listen?subject=NEWS.%3E", "event: message",
                        [&] { EXPECT_EQ(post(port, "/api/send", sent)->body, "{\"sent\":1}\n"); });
        EXPECT_EQ(messageIn(events).dump(), sent.dump());
        expectSoundEvents(events);
    }
    bus::Outgoing inferred;
    EXPECT_EQ(bus::readMessage(Json::parse(R"({"subject":"A","fields":{"a":1,"b":2147483648,
                  "c":18446744073709551615,"d":1.0,"e":true,"f":"x","g":{"h":[{"value":1}]}}})"),
                               inferred),
              "");
    EXPECT_EQ(
        bus::messageJson("A", nullptr, *inferred.datum)["fields"].dump(),
        R"([{"name":"a","type":"i32","value":1},{"name":"b","type":"i64","value":2147483648},)"
        R"({"name":"c","type":"u64","value":"18446744073709551615"},)"
        R"({"name":"d","type":"f64","value":1.0},{"name":"e","type":"bool","value":true},)"
        R"({"name":"f","type":"string","value":"x"},{"name":"g","type":"message","value":)"
        R"([{"name":"h","type":"message","value":[{"name":"","type":"i32","value":1}]}]}])");
    for (
        const char* wrong :
        {R"({"subject":"A..B","fields":{}})", R"({"subject":"A","fields":{"a":null}})",
         R"({"subject":"A","fields":[{"name":"a","type":"i8","value":128}]})",
         R"({"subject":"A","fields":[{"name":"a","type":"opaque","value":"A"}]})",
         R"({"subject":"A","fields":[{"name":"a","type":"ip","value":"1.2.3"}]})",
         R"({"subject":"A","fields":[{"name":"a","type":"encrypted","value":"AAAACZlV7rs="}]})",
         R"({"subject":"A","fields":[{"name":"a","type":"datetime","value":"2026-02-30T00:00:00Z"}]})",
         R"({"subject":"A","fields":[{"name":"a","type":"type 22","value":null}]})",
         R"({"subject":"A","fields":{"a":18446744073709551616}})",
         R"({"subject":"A","fields":{"m":{"type":"f64","value":-9223372036854775809}}})",
         R"({"subject":"A","fields":[{"name":"a","type":"u64","value":18446744073709551616}]})",
         R"({"subject":"A"})"}) {
        EXPECT_EQ(codeIn(sendText(port, wrong)), "InvalidArgument") << wrong;
    }
    for (const char* real :
         {"1.8446744073709552e19", "[{\"type\":\"f64\",\"value\":18446744073709551616}]"}) {
        EXPECT_EQ(
            sendText(port, fmt::format(R"({{"subject":"A","fields":{{"a":{}}}}})", real))->status,
            200);
    }
    for (const char* subject : {"A.*", ">", "_RV.NEWS", "_RVD.STATUS", "_RVD"}) {
        for (const char* key : {"subject", "reply"}) {
            Json wrong = {{"subject", "A"}, {"value", "x"}, {"timeout_ms", 1}};
            wrong[key] = subject;
            EXPECT_EQ(codeIn(post(port, "/api/send", wrong)), "InvalidArgument") << wrong;
            const bool isQuestion =
                std::string_view(key) == "subject" && std::string_view(subject).starts_with("_RVD");
            EXPECT_EQ(post(port, "/api/request", wrong)->status == 400, !isQuestion) << wrong;
        }
    }
    EXPECT_EQ(post(port, "/api/send", {{"subject", "_INBOX.A.1"}, {"value", "x"}})->status, 200);
    EXPECT_EQ(codeIn(post(port, "/api/send", "text")), "BadRequest");
    // Neither walked down to their end nor searched key by key.
    const std::string deep = std::string(500'000, '[') + std::string(500'000, ']');
    std::string wide = "{";
    for (int i = 0; i < 60'000; ++i) wide += fmt::format("{}\"{:x}\":1", i == 0 ? "" : ",", i);
    for (const std::string& value : {deep, wide + "}", std::string(R"({"a":1,"a":2})")}) {
        const std::string body =
            R"({"subject":"A","fields":[{"name":"a","type":"i8","value":)" + value + "}]}";
        EXPECT_EQ(codeIn(sendText(port, body)), "BadRequest");
    }
}

TEST_F(ApiTest, StreamsAnswersOfServicesInEveryForm) {
    std::string csv = "name,mtu\n";
    for (int i = 0; i < 5000; ++i) csv += fmt::format("core-{},{}\n", i, 1500 + i);
    const auto model = bus_.startModel(bus_.file("devices.csv", csv));
    const int port = start();
    Json query = {{"service", "Model"}, {"text", "SELECT * FROM devices"}};
    const auto lines = post(port, "/api/query", query);
    ASSERT_EQ(lines->status, 200);
    std::istringstream in(lines->body);
    std::vector<Json> all;
    for (std::string line; std::getline(in, line);) all.push_back(Json::parse(line));
    ASSERT_EQ(all.size(), 5002U);
    for (const Json& line : all) expectSound("Line", line);
    EXPECT_EQ(all[1].dump(), R"({"row":{"name":"core-0","mtu":1500}})");
    EXPECT_EQ(all.back()["end"]["rows"], 5000);
    query["format"] = "csv";
    query["text"] = "SELECT MTU, name FROM devices WHERE mtu < 1502";
    EXPECT_EQ(post(port, "/api/query", query)->body, "MTU,name\r\n1500,core-0\r\n1501,core-1\r\n");
    query["format"] = "json";
    const Json rows = Json::parse(post(port, "/api/query", query)->body);
    EXPECT_EQ(rows["rows"].size(), 2U);
    expectSound("Rows", rows);
    query["text"] = "SELECT FROM";
    const auto refused = post(port, "/api/query", query);
    EXPECT_EQ(refused->status, 422);
    EXPECT_GT(Json::parse(refused->body)["error"]["position"].get<int>(), 0);
    query["service"] = "Nobody";
    query["timeout_ms"] = 100;
    EXPECT_EQ(post(port, "/api/query", query)->status, 504);
    query["timeout_ms"] = 0;
    EXPECT_EQ(codeIn(post(port, "/api/query", query)), "BadRequest");
    EXPECT_TRUE(eventually(
        [&] { return Json::parse(get(port, "/api/services").body)["services"].size() == 1; }));
    const auto reply =
        post(port, "/api/request", {{"subject", "_RVD.STATUS"}, {"fields", Json::object()}});
    EXPECT_EQ(Json::parse(reply->body)["fields"][0]["name"], "part");
    expectSound("Message", Json::parse(reply->body));
    expectSound("Error", Json::parse(refused->body));
    for (const auto& [path, schema] : {std::pair("/api/services", "Services"),
                                       {"/api/bus", "Bus"},
                                       {"/api/history", "History"},
                                       {"/api/login", "Login"}}) {
        expectSound(schema, Json::parse(get(port, path).body));
    }
    // What the document names is served.
    for (const auto& [path, methods] : schemas_.document()["paths"].items()) {
        for (const auto& [method, operation] : methods.items()) {
            if (method == "get" && path != "/api/listen" && path != "/api/events") {
                EXPECT_EQ(get(port, path).status, 200) << path;
            } else if (method == "post") {
                EXPECT_EQ(statusOfEmpty(port, path), path == "/api/logout" ? 200 : 400) << path;
            }
        }
    }
    EXPECT_EQ(codeIn(post(port, "/api/request",
                          {{"subject", "NOBODY"}, {"value", "x"}, {"timeout_ms", 50}})),
              "TimedOut");
}

TEST(RowWriterTest, KeepsApartNamesThatAreAlike) {
    kvx::Record row;
    for (const char* name : {"MTU", "mtu", "\xff", "base64:/w=="}) {
        ASSERT_TRUE(row.set(name, static_cast<int>(row.size())));
    }
    rva::Query query;
    EXPECT_EQ(rva::makeRowWriter(query)->row(row),
              "{\"row\":{\"MTU\":0,\"mtu\":1,\"base64:/w==\":2,\"base64:YmFzZTY0Oi93PT0=\":3}}\n");
    query.format = rva::RowFormat::Csv;
    EXPECT_EQ(rva::makeRowWriter(query)->row(row), "MTU,mtu,\xff,base64:/w==\r\n0,1,2,3\r\n");
}

TEST_F(ApiTest, ManyPagesCostOneSubscriptionAndResumeWhereTheyLeft) {
    const int port = start({"-interval", "1"});
    const auto listens = [&] {
        const Json status = Json::parse(get(port, "/api/bus").body)["status"];
        return status.contains("counters") ? status["counters"]["listens_open"].get<int>() : -1;
    };
    ASSERT_TRUE(eventually([&] { return listens() >= 0; }));
    const int before = listens();
    std::vector<LinkEnd> pages;
    for (int i = 0; i < 50; ++i) {
        pages.push_back(requested(port, "GET /api/listen?subject=SHARED"));
        pages.push_back(requested(port, "GET /api/events"));
    }
    for (std::size_t i = 0; i < pages.size(); ++i) {
        EXPECT_TRUE(readUntil(pages[i], i % 2 == 0 ? "event: listening" : "event: traffic"));
    }
    EXPECT_TRUE(eventually([&] { return listens() == before + 1; }));
    pages.clear();
    EXPECT_TRUE(eventually([&] { return listens() == before; }));

    const auto events = [&](const httplib::Headers& headers) {
        std::string text;
        httplib::Client("127.0.0.1", port)
            .Get("/api/events", headers, [&](const char* data, std::size_t size) {
                text.append(data, size);
                return text.find("event: history") == std::string::npos || !text.ends_with("\n\n");
            });
        return text;
    };
    const std::string first = events({});
    EXPECT_NE(first.find("event: services"), std::string::npos) << first;
    expectSoundEvents(first);
    const auto id = first.rfind("\nid: ") + 5;
    const std::string last = first.substr(id, first.find('\n', id) - id);
    EXPECT_EQ(events({{"Last-Event-ID", last}}).find("\"whole\":true"), std::string::npos);
    EXPECT_NE(events({{"Last-Event-ID", "1-1"}}).find("\"whole\":true"), std::string::npos);
    const Json history = Json::parse(get(port, "/api/history").body);
    EXPECT_EQ(history["time"].size(), history["series"]["sessions"].size());
    EXPECT_GE(history["time"].size(), 1U);

    bus_.daemon().kill();
    ASSERT_TRUE(eventually([&] { return get(port, "/readyz").status == 503; }));
    EXPECT_EQ(codeIn(post(port, "/api/send", {{"subject", "A"}, {"value", "x"}})), "Lost");
    EXPECT_EQ(Json::parse(get(port, "/api/bus").body)["connected"], false);
    // A stream begins although the daemon is away, and hears when it is back.
    auto early = requested(port, "GET /api/listen?subject=BACK");
    EXPECT_TRUE(readUntil(early, "\"connected\":false"));
    bus_.daemon().restart();
    EXPECT_TRUE(readUntil(early, "event: listening"));
    ASSERT_TRUE(eventually([&] { return get(port, "/readyz").status == 200; }));
    EXPECT_EQ(post(port, "/api/send", {{"subject", "BACK"}, {"value", "x"}})->status, 200);
    EXPECT_TRUE(readUntil(early, "event: message"));
    agent_->kill(SIGTERM);
    EXPECT_TRUE(readUntil(early, R"(event: end
data: {"error":{"code":"Ended")"));
}

TEST_F(ApiTest, RefusesWhatIsAboveItsLimitsUntilClientsGo) {
    const int port = start();
    const Json query = {{"service", "Nobody"}, {"text", "x"}, {"timeout_ms", 600'000}};
    const Json request = {{"subject", "NOBODY"}, {"value", "x"}, {"timeout_ms", 600'000}};
    for (const auto& [line, body, most] : {std::tuple("GET /api/listen?subject=A", Json(), 256U),
                                           std::tuple("POST /api/query", query, 16U),
                                           std::tuple("POST /api/request", request, 64U)}) {
        Json brief = body;
        if (brief.is_object()) brief["timeout_ms"] = 1;
        const auto isRefused = [&] {
            return statusIn(requested(port, line, brief.dump())) == "429";
        };
        std::vector<LinkEnd> links;
        while (links.size() + 1 < most) links.push_back(requested(port, line, body.dump()));
        EXPECT_FALSE(isRefused()) << line;
        EXPECT_TRUE(eventually([&] {
            links.push_back(requested(port, line, body.dump()));
            return isRefused();
        })) << line;
        EXPECT_EQ(get(port, "/healthz").status, 200);
        links.clear();
        EXPECT_TRUE(eventually([&] { return !isRefused(); })) << line;
    }
}

TEST_F(ApiTest, TellsAListenerWhatItWasTooSlowForAndAServiceThatItsClientHasGone) {
    constexpr int kPosts = 8;
    constexpr int kMessages = 10;
    const int port = start();
    const Json one = {{"subject", "BIG"}, {"value", std::string(90'000, 'x')}};
    const Json batch = {{"messages", std::vector<Json>(kMessages, one)}};
    std::string text;
    int heard = 0;
    int dropped = 0;
    httplib::Client("127.0.0.1", port)
        .Get("/api/listen?subject=BIG", [&](const char* data, std::size_t size) {
            text.append(data, size);
            for (auto end = text.find("\n\n"); end != std::string::npos; end = text.find("\n\n")) {
                const std::string event = text.substr(0, end);
                text.erase(0, end + 2);
                for (int i = 0; i < kPosts && event.starts_with("event: listening"); ++i) {
                    EXPECT_EQ(post(port, "/api/send", batch)->status, 200);
                }
                if (event.starts_with("event: message")) ++heard;
                if (!event.starts_with("event: dropped")) continue;
                dropped += Json::parse(event.substr(event.find('{')))["messages"].get<int>();
            }
            return heard + dropped < kPosts * kMessages;
        });
    EXPECT_GT(dropped, 0);
    EXPECT_EQ(heard + dropped, kPosts * kMessages);

    const auto odd = bus_.start("kvx_odd_service", {"2", "3600"});
    ASSERT_NE(odd->awaitOutput("active"), "") << odd->errors();
    const Json endless = {{"service", "Odd"}, {"text", "1000000000"}};
    EXPECT_EQ(statusIn(requested(port, "POST /api/query", endless.dump())), "200");
    EXPECT_NE(odd->awaitOutput("unwanted"), "");
}

}  // namespace
}  // namespace kvx::test
