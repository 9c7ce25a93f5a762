#include "rva/HttpPages.h"

#include <memory>
#include <utility>

namespace kvx::rva {

namespace {

bool isJson(const std::string& contentType) {
    const auto type = contentType.substr(0, contentType.find_first_of("; "));
    return type == "application/json";
}

std::string methodsIn(const auto& methods) {
    std::string names;
    for (const auto& [method, route] : methods) {
        names += names.empty() ? method : ", " + method;
        if (method == "GET") names += ", HEAD";
    }
    return names;
}

}  // namespace

HttpPages::HttpPages(Gate gate) : gate_(std::move(gate)) {
    const auto serve = [this](const char* method, const char* path,
                              HttpReply (Gate::*reply)(const HttpRequest&) const) {
        handle(
            method, path,
            [this, reply](const HttpRequest& request, const HttpAnswerPtr& answer) {
                answer->reply((gate_.*reply)(request));
            },
            For::All);
    };
    serve("GET", "/api/login", &Gate::tell);
    serve("POST", "/api/login", &Gate::login);
    serve("POST", "/api/logout", &Gate::logout);
}

void HttpPages::add(const std::string& path, Maker make, For whom) {
    handle(
        "GET", path,
        [make = std::move(make)](const HttpRequest&, const HttpAnswerPtr& answer) {
            answer->reply(make());
        },
        whom);
}

void HttpPages::addFile(const std::string& path, const std::string& type, std::string bytes) {
    Page page{200, type, std::move(bytes), {{"Cache-Control", "no-cache"}}};
    add(
        path, [page = std::move(page)]() -> Page { return page; }, For::All);
}

void HttpPages::handle(const std::string& method, const std::string& path, Handler handler,
                       For whom) {
    routes_[path][method] = {std::move(handler), whom};
}

const HttpPages::Route* HttpPages::find(const HttpRequest& head) const {
    const auto methods = routes_.find(head.path);
    if (methods == routes_.end()) return nullptr;
    const auto route = methods->second.find(head.method == "HEAD" ? "GET" : head.method);
    return route == methods->second.end() ? nullptr : &route->second;
}

std::optional<HttpReply> HttpPages::refuse(const HttpRequest& head) {
    auto refusal = check(head);
    if (refusal) ++requests_;
    return refusal;
}

std::optional<HttpReply> HttpPages::check(const HttpRequest& head) const {
    if (auto refusal = gate_.refuseStranger(head)) return refusal;
    const Route* const route = find(head);
    if (route == nullptr || route->whom == For::Insiders) {
        if (auto refusal = gate_.refuseOutsider(head)) return refusal;
    }
    const auto methods = routes_.find(head.path);
    if (methods == routes_.end()) return errorReply(404, "NotFound", "nothing here");
    if (route == nullptr) {
        const std::string allowed = methodsIn(methods->second);
        auto reply = errorReply(405, "NotAllowed", "only with " + allowed);
        reply.headers.emplace_back("Allow", allowed);
        return reply;
    }
    if (head.method == "POST" && !isJson(head.header("content-type"))) {
        return errorReply(415, "Unsupported", "the content type is not application/json");
    }
    return std::nullopt;
}

void HttpPages::answer(HttpRequest request, HttpAnswerPtr answer) {
    ++requests_;
    // `refuse` has found it.
    if (const Route* const route = find(request)) {
        route->handler(std::move(request), std::move(answer));
    }
}

}  // namespace kvx::rva
