#include "rva/Gate.h"

#include <fmt/format.h>

#include <algorithm>
#include <random>
#include <utility>

#include "rva/ClientJson.h"

namespace kvx::rva {

namespace {

constexpr std::string_view kBearer = "Bearer ";
constexpr std::string_view kCookie = "kvx_rva=";

// 256 bits of the system's randomness.
std::string randomKey() {
    std::random_device random;
    std::string key;
    for (int i = 0; i < 8; ++i) key += fmt::format("{:08x}", static_cast<std::uint32_t>(random()));
    return key;
}

// "host" of "host:port" and of "[::1]:port".
std::string_view hostIn(std::string_view authority) {
    const auto bracket = authority.rfind(']');
    const auto colon = authority.find(':', bracket == std::string_view::npos ? 0 : bracket);
    return authority.substr(0, colon);
}

bool isOfLoopback(std::string_view host) {
    return host == "localhost" || host == "127.0.0.1" || host == "[::1]";
}

std::string lowerCase(std::string text) {
    std::ranges::transform(text, text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return text;
}

HttpReply forbidden(std::string_view text) {
    return errorReply(403, "Forbidden", text);
}

std::string_view cookieOf(std::string_view cookies) {
    while (!cookies.empty()) {
        cookies.remove_prefix(std::min(cookies.find_first_not_of("; "), cookies.size()));
        const auto one = cookies.substr(0, cookies.find(';'));
        if (one.starts_with(kCookie)) return one.substr(kCookie.size());
        cookies.remove_prefix(one.size());
    }
    return {};
}

}  // namespace

bool isSameSecret(std::string_view one, std::string_view other) {
    unsigned difference = one.size() == other.size() ? 0 : 1;
    for (std::size_t i = 0; i < one.size(); ++i) {
        const char beside = other.empty() ? '\0' : other[i % other.size()];
        difference |= static_cast<unsigned char>(one[i]) ^ static_cast<unsigned char>(beside);
    }
    return difference == 0;
}

Gate::Gate(std::vector<std::string> hosts, std::string token)
    : hosts_(std::move(hosts)), token_(std::move(token)), key_(randomKey()) {}

std::optional<HttpReply> Gate::refuseStranger(const HttpRequest& head) const {
    const std::string authority = lowerCase(head.header("host"));
    const std::string_view host = hostIn(authority);
    const bool isOurs = isOfLoopback(host) || std::ranges::any_of(hosts_, [&](const auto& name) {
                            return lowerCase(name) == host;
                        });
    if (authority.empty() || !isOurs) {
        return forbidden("the Host is not one of this agent's; -host adds a name");
    }
    if (head.headers.contains("origin")) {
        const std::string origin = lowerCase(head.header("origin"));
        if (origin != "http://" + authority && origin != "https://" + authority) {
            return forbidden("the Origin is not the Host");
        }
    }
    return std::nullopt;
}

std::optional<HttpReply> Gate::refuseOutsider(const HttpRequest& head) const {
    const auto site = head.headers.find("sec-fetch-site");
    if (site != head.headers.end() && site->second != "same-origin" && site->second != "none") {
        return forbidden("a browser asks on behalf of another site");
    }
    if (isIn(head)) return std::nullopt;
    auto reply = errorReply(401, "Unauthorized", "a token is needed: Authorization: Bearer TOKEN");
    reply.headers.emplace_back("WWW-Authenticate", "Bearer");
    return reply;
}

bool Gate::isIn(const HttpRequest& head) const {
    if (token_.empty()) return true;
    const std::string given = head.header("authorization");
    if (given.starts_with(kBearer)) {
        return isSameSecret(std::string_view(given).substr(kBearer.size()), token_);
    }
    return isSameSecret(cookieOf(head.header("cookie")), key_);
}

HttpReply Gate::tell(const HttpRequest& request) const {
    return {200, kJsonType,
            fmt::format("{{\"needed\":{},\"in\":{}}}\n", !token_.empty(), isIn(request))};
}

HttpReply Gate::login(const HttpRequest& request) const {
    std::string problem;
    const Json body = readClientJson(request.body, problem);
    if (!body.contains("token") || !body["token"].is_string()) {
        return errorReply(400, "BadRequest", R"(the body is {"token":"..."})");
    }
    if (!token_.empty() && !isSameSecret(body["token"].get<std::string>(), token_)) {
        return errorReply(401, "Unauthorized", "this is not the token");
    }
    return withCookie(request, key_, "");
}

HttpReply Gate::logout(const HttpRequest& request) const {
    return withCookie(request, "", "; Max-Age=0");
}

// A proxy says that it is reached by TLS; the cookie is then for TLS only.
HttpReply Gate::withCookie(const HttpRequest& request, std::string_view value,
                           std::string_view more) const {
    const bool isSecure = request.header("x-forwarded-proto") == "https";
    HttpReply reply{200, kJsonType,
                    fmt::format("{{\"needed\":{},\"in\":{}}}\n", !token_.empty(),
                                token_.empty() || !value.empty())};
    reply.headers.emplace_back(
        "Set-Cookie", fmt::format("{}{}; Path=/; HttpOnly; SameSite=Strict{}{}", kCookie, value,
                                  isSecure ? "; Secure" : "", more));
    return reply;
}

}  // namespace kvx::rva
