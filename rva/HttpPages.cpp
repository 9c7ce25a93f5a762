// The library reads requests from memory and writes answers to memory. Requests are answered before
// its routing, which would match paths as regular expressions and read bodies.

#include "rva/HttpPages.h"

#include <httplib.h>

#include <map>
#include <utility>

#include "platform/Socket.h"

namespace kvx::rva {

namespace {

// A request in memory, and the answer to it.
class MemoryStream : public httplib::Stream {
  public:
    explicit MemoryStream(std::string_view request) : unread_(request) {}

    bool is_readable() const override { return !unread_.empty(); }
    bool is_writable() const override { return true; }
    ssize_t read(char* to, std::size_t size) override {
        const std::size_t count = unread_.copy(to, size);
        unread_.remove_prefix(count);
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char* from, std::size_t size) override {
        answer.append(from, size);
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return platform::kNoSocket; }

    std::string answer;

  private:
    std::string_view unread_;
};

}  // namespace

class HttpPages::Reader : private httplib::Server {
  public:
    explicit Reader(HttpPages& pages) {
        set_pre_routing_handler(
            [this, &pages](const httplib::Request& request, httplib::Response& response) {
                ++pages.requests_;
                respond(request, response);
                return HandlerResponse::Handled;
            });
    }

    std::string answer(std::string_view request) {
        MemoryStream stream(request);
        bool closed = false;
        // No ranges: the library trusts their numbers.
        process_request(stream, true, closed,
                        [](httplib::Request& parsed) { parsed.ranges.clear(); });
        return std::move(stream.answer);
    }

    std::map<std::string, Maker> makers_;

  private:
    void respond(const httplib::Request& request, httplib::Response& response) const {
        const auto maker = makers_.find(request.path);
        Page page;
        if (request.method != "GET" && request.method != "HEAD") {
            page = {405, page.type, "only GET and HEAD\n"};
            response.set_header("Allow", "GET, HEAD");
        } else if (maker == makers_.end()) {
            page = {404, page.type, "nothing here\n"};
        } else {
            page = maker->second();
        }
        response.status = page.status;
        response.set_content(page.body, page.type);
    }
};

HttpPages::HttpPages() : reader_(std::make_unique<Reader>(*this)) {}
HttpPages::~HttpPages() = default;

void HttpPages::add(const std::string& path, Maker make) {
    reader_->makers_[path] = std::move(make);
}

std::string HttpPages::answer(std::string_view request) {
    return reader_->answer(request);
}

}  // namespace kvx::rva
