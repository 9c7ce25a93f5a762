// The library reads heads from memory. It hands them over before its routing, which would match
// paths as regular expressions and read bodies; what it then answers is dropped. It also takes the
// values of headers for percent-encoded, which they are not: so they are encoded for it. It knows
// targets that are paths only.

#include "rva/HttpRequest.h"

#include <httplib.h>

#include <algorithm>
#include <charconv>

#include "platform/Socket.h"

namespace kvx::rva {

namespace {

class MemoryStream : public httplib::Stream {
  public:
    explicit MemoryStream(std::string_view bytes) : unread_(bytes) {}

    bool is_readable() const override { return !unread_.empty(); }
    bool is_writable() const override { return true; }
    ssize_t read(char* to, std::size_t size) override {
        const std::size_t count = unread_.copy(to, size);
        unread_.remove_prefix(count);
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char*, std::size_t size) override { return static_cast<ssize_t>(size); }
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return platform::kNoSocket; }

  private:
    std::string_view unread_;
};

std::string lowered(std::string text) {
    std::ranges::transform(text, text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return text;
}

std::string withHeadersEncoded(std::string_view head) {
    const auto line = std::min(head.find('\n'), head.size());
    std::string text(head.substr(0, line));
    for (const char c : head.substr(line)) c == '%' ? text += "%25" : text += c;
    return text;
}

// A target in absolute form, http://HOST:PORT/PATH.
struct AbsoluteTarget {
    std::string_view whole;      // within the head
    std::string_view authority;  // empty when it is none
    std::string path;
};

std::optional<AbsoluteTarget> absoluteTarget(std::string_view head) {
    std::string_view target = head.substr(0, head.find('\n'));
    target.remove_prefix(std::min(target.find(' ') + 1, target.size()));
    target = target.substr(0, target.find(' '));
    const std::string lower = lowered(std::string(target));
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (!lower.starts_with(scheme)) continue;
        const std::string_view rest = target.substr(scheme.size());
        const auto end = std::min(rest.find_first_of("/?"), rest.size());
        const auto authority = rest.substr(0, end);
        const bool hasUser = authority.find('@') != std::string_view::npos;
        std::string path(rest.substr(end));
        if (!path.starts_with('/')) path.insert(0, "/");
        return AbsoluteTarget{target, hasUser ? std::string_view() : authority, std::move(path)};
    }
    return std::nullopt;
}

class Reader : private httplib::Server {
  public:
    Reader() {
        set_pre_routing_handler([this](const httplib::Request& request, httplib::Response&) {
            HttpRequest& read = read_.emplace();
            read.method = request.method;
            read.path = request.path;
            read.hasChunks = request.version == "HTTP/1.1";
            for (const auto& [name, value] : request.headers) {
                read.headers.emplace(lowered(name), value);
            }
            read.parameters = request.params;
            return HandlerResponse::Handled;
        });
    }

    std::optional<HttpRequest> read(std::string_view head) {
        const std::string text = withHeadersEncoded(head);
        MemoryStream stream(text);
        bool closed = false;
        read_.reset();
        // No ranges: the library trusts their numbers.
        process_request(stream, true, closed,
                        [](httplib::Request& parsed) { parsed.ranges.clear(); });
        return std::move(read_);
    }

  private:
    std::optional<HttpRequest> read_;
};

}  // namespace

std::string HttpRequest::header(const std::string& name) const {
    const auto [first, last] = headers.equal_range(name);
    return first != last && std::next(first) == last ? first->second : std::string();
}

std::vector<std::string> HttpRequest::all(const std::string& parameter) const {
    std::vector<std::string> values;
    const auto [first, last] = parameters.equal_range(parameter);
    for (auto i = first; i != last; ++i) values.push_back(i->second);
    return values;
}

std::optional<HttpRequest> readHead(std::string_view head) {
    thread_local Reader reader;
    const auto absolute = absoluteTarget(head);
    if (!absolute) return reader.read(head);
    if (absolute->authority.empty()) return std::nullopt;
    std::string text(head);
    const auto begin = static_cast<std::size_t>(absolute->whole.data() - head.data());
    auto request = reader.read(text.replace(begin, absolute->whole.size(), absolute->path));
    if (!request) return std::nullopt;
    request->headers.erase("host");
    request->headers.emplace("host", absolute->authority);
    return request;
}

std::optional<std::size_t> bodySize(const HttpRequest& head) {
    if (head.headers.contains("transfer-encoding")) return std::nullopt;
    if (!head.headers.contains("content-length")) return 0;
    const std::string text = head.header("content-length");
    std::size_t size = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), size);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return size;
}

}  // namespace kvx::rva
