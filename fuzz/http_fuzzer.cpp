// Requests from the network: the head, who is let in, and a body with a message, which must come
// back the same from its own JSON.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "rva/ClientJson.h"
#include "rva/HttpPages.h"
#include "rva/HttpRequest.h"
#include "tools/bus/MessageJson.h"

namespace {

using namespace kvx::rva;
namespace bus = kvx::bus;

void require(bool condition) {
    if (!condition) std::abort();
}

void readRequest(std::string_view bytes) {
    static HttpPages pages(Gate({"bus.example"}, "0123456789abcdef"));
    static const bool isMade = [] {
        pages.addFile("/", "text/html", "page");
        pages.handle("POST", "/api/send",
                     [](const HttpRequest&, const HttpAnswerPtr&) { std::abort(); });
        return true;
    }();
    require(isMade);
    const auto head = readHead(bytes);
    if (!head) return;
    static_cast<void>(bodySize(*head));
    static_cast<void>(head->all("subject"));
    const bool isLetIn = !pages.refuse(*head);
    const bool hasToken = head->header("authorization") == "Bearer 0123456789abcdef";
    require(!isLetIn || hasToken || head->path == "/" || head->path == "/api/login" ||
            head->path == "/api/logout");
}

void readBody(std::string_view bytes) {
    std::string problem;
    const Json json = readClientJson(bytes, problem);
    require(json.is_object() == problem.empty());
    bus::Outgoing message;
    if (!bus::readMessage(json, message).empty()) return;
    const char* const reply = message.reply.empty() ? nullptr : message.reply.c_str();
    const std::string line =
        bus::lineOf(bus::messageJson(message.subject.c_str(), reply, *message.datum));
    bus::Outgoing again;
    require(bus::readMessage(Json::parse(line), again).empty());
    require(again.subject == message.subject && again.reply == message.reply);
    require(line == bus::lineOf(bus::messageJson(again.subject.c_str(), reply, *again.datum)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    readRequest(bytes);
    const auto end = bytes.find("\r\n\r\n");
    readBody(bytes.substr(end == std::string_view::npos ? 0 : end + 4));
    return 0;
}
