#include "rva/Api.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>
#include <vector>

#include "platform/Text.h"
#include "rv/message/SubjectView.h"
#include "rva/ClientJson.h"
#include "tools/bus/MessageJson.h"

namespace kvx::rva {

namespace {

constexpr std::size_t kMostMessages = 1000;
constexpr std::size_t kMostSubjects = 16;
constexpr std::int64_t kDefaultTimeoutMs = 8000;
constexpr std::int64_t kMostTimeoutMs = 600'000;

// What a client has sent, read key by key; `problem` is the first that was wrong.
class Body {
  public:
    explicit Body(const std::string& text) : json_(readClientJson(text, problem_)) {}

    std::string text(const char* key, const std::string& otherwise = {}) {
        if (!json_.is_object() || !json_.contains(key)) return otherwise;
        if (json_[key].is_string()) return json_[key].get<std::string>();
        fail(fmt::format("'{}' is no text", key));
        return {};
    }

    std::string neededText(const char* key) {
        std::string found = text(key);
        if (found.empty()) fail(fmt::format("'{}' is missing", key));
        return found;
    }

    std::chrono::milliseconds timeout() {
        const Json value = json_.is_object() ? json_.value("timeout_ms", Json(kDefaultTimeoutMs))
                                             : Json(kDefaultTimeoutMs);
        const auto ms = value.is_number_integer() ? value.get<std::int64_t>() : 0;
        if (ms < 1 || ms > kMostTimeoutMs) {
            fail(fmt::format("'timeout_ms' is no whole number from 1 to {}", kMostTimeoutMs));
        }
        return std::chrono::milliseconds(ms);
    }

    [[nodiscard]] const Json& json() const { return json_; }

    // The error has been answered.
    bool isRefused(const HttpAnswerPtr& answer) const {
        if (!problem_.empty()) answer->reply(errorReply(400, "BadRequest", problem_));
        return !problem_.empty();
    }

  private:
    void fail(std::string problem) {
        if (problem_.empty()) problem_ = std::move(problem);
    }

    std::string problem_;
    const Json json_;
};

constexpr std::string_view kDaemonElement = "_RVD";  // first element of what the daemon is asked

// A message goes to one subject and is answered on one. What the bus says of itself is not for
// clients to say, nor for answers to be sent to; the daemon may be asked.
enum class Call { Send, Request };
std::string problemOf(const bus::Outgoing& message, Call call) {
    for (const std::string* const text : {&message.subject, &message.reply}) {
        if (text->empty()) continue;
        const auto subject = Subject::fromText(text->c_str());
        if (!subject || subject->view().hasWildcards()) {
            return fmt::format("'{}' has a wildcard: a message has one subject", excerpt(*text));
        }
        const bool isQuestion = call == Call::Request && text == &message.subject;
        const auto first = subject->view().first();
        if (first == kReservedElement || (first == kDaemonElement && !isQuestion)) {
            return fmt::format("'{}' is reserved for the bus itself", excerpt(*text));
        }
    }
    return {};
}

std::string readCall(const Json& json, bus::Outgoing& message, Call call) {
    auto problem = bus::readMessage(json, message);
    return problem.empty() ? problemOf(message, call) : problem;
}

// The outermost messages or only one. Returns the error, or an empty text.
std::string readMessages(const Json& json, std::vector<bus::Outgoing>& messages) {
    if (!json.contains("messages")) return readCall(json, messages.emplace_back(), Call::Send);
    const Json& all = json["messages"];
    if (!all.is_array() || all.size() > kMostMessages) {
        return fmt::format("'messages' is no array of at most {}", kMostMessages);
    }
    for (const Json& one : all) {
        if (auto problem = readCall(one, messages.emplace_back(), Call::Send); !problem.empty()) {
            return fmt::format("message {}: {}", messages.size(), problem);
        }
    }
    return {};
}

}  // namespace

void Api::addTo(HttpPages& pages) {
    const auto document = [&](const char* path, auto make) {
        pages.add(path, [make] { return HttpReply{200, kJsonType, make() + "\n"}; });
    };
    document("/api/services", [this] { return seen_.servicesJson(); });
    document("/api/bus", [this] { return seen_.busJson(); });
    document("/api/history", [this] { return seen_.historyJson(); });
    const auto handle = [&](const char* method, const char* path,
                            void (Api::*handler)(const HttpRequest&, const HttpAnswerPtr&)) {
        pages.handle(method, path,
                     [this, handler](const HttpRequest& request, const HttpAnswerPtr& answer) {
                         (this->*handler)(request, answer);
                     });
    };
    handle("POST", "/api/query", &Api::query);
    handle("POST", "/api/send", &Api::send);
    handle("POST", "/api/request", &Api::request);
    handle("GET", "/api/listen", &Api::listen);
    handle("GET", "/api/events", &Api::events);
}

// While it is away the bus's thread is busy with reaching it.
bool Api::isThere(const HttpAnswerPtr& answer) const {
    if (seen_.isReady()) return true;
    answer->reply(errorReply(503, "Lost", "the bus daemon is away"));
    return false;
}

// A stream may then wait long for the bus's thread, and an `EventSource` would never try again
// after an error.
void Api::tellWhereAway(const HttpAnswerPtr& answer) const {
    EventSink sink(answer);
    if (!seen_.isReady() && sink.start()) sink.send(eventText("bus", seen_.connectionJson()));
}

std::shared_ptr<const void> Api::stream(const HttpRequest& request,
                                        const HttpAnswerPtr& answer) const {
    if (!request.hasChunks) {
        answer->reply(errorReply(505, "NoStream", "a streamed answer needs HTTP/1.1"));
        return nullptr;
    }
    auto slot = streams_.take();
    if (slot) {
        answer->hold(slot);
    } else {
        answer->reply(errorReply(429, "TooMany", "256 streams are open"));
    }
    return slot;
}

void Api::query(const HttpRequest& request, const HttpAnswerPtr& answer) {
    static constexpr std::array<std::pair<std::string_view, RowFormat>, 3> kFormats = {
        {{"ndjson", RowFormat::NdJson}, {"json", RowFormat::WholeJson}, {"csv", RowFormat::Csv}}};
    Body body(request.body);
    Query query{body.neededText("service"), body.neededText("text")};
    query.timeout = body.timeout();
    const std::string format = body.text("format", "ndjson");
    if (body.isRefused(answer)) return;
    const auto* const known =
        std::ranges::find(kFormats, format, [](const auto& one) { return one.first; });
    if (known == kFormats.end()) {
        answer->reply(errorReply(400, "BadRequest", "'format' is ndjson, json or csv"));
        return;
    }
    query.format = known->second;
    if (stream(request, answer) && isThere(answer)) queries_.ask(std::move(query), answer);
}

void Api::send(const HttpRequest& request, const HttpAnswerPtr& answer) {
    const Body body(request.body);
    std::vector<bus::Outgoing> messages;
    if (body.isRefused(answer)) return;
    if (auto problem = readMessages(body.json(), messages); !problem.empty()) {
        answer->reply(errorReply(400, "InvalidArgument", problem));
        return;
    }
    if (isThere(answer)) calls_.send(std::move(messages), answer);
}

void Api::request(const HttpRequest& request, const HttpAnswerPtr& answer) {
    Body body(request.body);
    bus::Outgoing message;
    const auto timeout = body.timeout();
    if (body.isRefused(answer)) return;
    if (auto problem = readCall(body.json(), message, Call::Request); !problem.empty()) {
        answer->reply(errorReply(400, "InvalidArgument", problem));
        return;
    }
    if (isThere(answer)) calls_.request(std::move(message), timeout, answer);
}

void Api::listen(const HttpRequest& request, const HttpAnswerPtr& answer) {
    std::vector<std::string> subjects = request.all("subject");
    std::ranges::sort(subjects);
    subjects.erase(std::unique(subjects.begin(), subjects.end()), subjects.end());
    if (subjects.empty() || subjects.size() > kMostSubjects) {
        answer->reply(errorReply(400, "BadRequest", "1 to 16 subjects: ?subject=NEWS.>"));
        return;
    }
    for (const auto& subject : subjects) {
        if (bus::isSubject(subject)) continue;
        answer->reply(errorReply(400, "InvalidArgument",
                                 fmt::format("'{}' is no subject", excerpt(subject))));
        return;
    }
    if (auto slot = stream(request, answer)) {
        tellWhereAway(answer);
        listens_.listen(std::move(subjects), answer, std::move(slot));
    }
}

void Api::events(const HttpRequest& request, const HttpAnswerPtr& answer) {
    if (auto slot = stream(request, answer)) {
        tellWhereAway(answer);
        feed_.join(request.header("last-event-id"), answer, std::move(slot));
    }
}

}  // namespace kvx::rva
