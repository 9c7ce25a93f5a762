#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kvx::rva {

/// A few HTTP pages, each made by a function: the bytes of a request in, those of its answer out.
/// GET and HEAD only. No I/O. One thread at a time, except `requests`.
class HttpPages {
  public:
    struct Page {
        int status = 200;
        std::string type = "text/plain; charset=utf-8";
        std::string body;
    };
    using Maker = std::function<Page()>;

    HttpPages();
    ~HttpPages();
    HttpPages(const HttpPages&) = delete;
    HttpPages& operator=(const HttpPages&) = delete;

    /// Answers requests for exactly `path` with `make()`. Call it before the first request.
    void add(const std::string& path, Maker make);

    /// The whole answer to `request`: a request's head, or any other bytes.
    [[nodiscard]] std::string answer(std::string_view request);

    /// Requests answered so far. Any thread.
    [[nodiscard]] std::uint64_t requests() const { return requests_; }

  private:
    class Reader;
    std::unique_ptr<Reader> reader_;
    std::atomic<std::uint64_t> requests_{0};
};

}  // namespace kvx::rva
