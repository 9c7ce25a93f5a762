#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "rva/Gate.h"
#include "rva/HttpServer.h"

namespace kvx::rva {

/// Which function answers which path, for those whom the gate lets in. One thread at a time, except
/// `requests`; all paths are added before the first request.
class HttpPages : public HttpHandler {
  public:
    /// Of a path: for all who are no strangers, or for those with the token only.
    enum class For { All, Insiders };

    using Page = HttpReply;
    using Maker = std::function<Page()>;
    using Handler = std::function<void(HttpRequest, HttpAnswerPtr)>;

    explicit HttpPages(Gate gate = Gate({}, {}));

    /// Answers GET and HEAD for exactly `path` with `make()`.
    void add(const std::string& path, Maker make, For whom = For::Insiders);
    /// The same with `bytes`, for all: files of a page, in which there is nothing of the bus.
    void addFile(const std::string& path, const std::string& type, std::string bytes);
    /// Has `handler` answer one method for exactly `path`. POST is of JSON only.
    void handle(const std::string& method, const std::string& path, Handler handler,
                For whom = For::Insiders);

    std::optional<HttpReply> refuse(const HttpRequest& head) override;
    void answer(HttpRequest request, HttpAnswerPtr answer) override;

    /// Requests answered so far. Any thread.
    [[nodiscard]] std::uint64_t requests() const { return requests_; }

  private:
    struct Route {
        Handler handler;
        For whom;
    };
    using Methods = std::map<std::string, Route>;

    [[nodiscard]] std::optional<HttpReply> check(const HttpRequest& head) const;
    [[nodiscard]] const Route* find(const HttpRequest& head) const;

    const Gate gate_;
    std::map<std::string, Methods> routes_;
    std::atomic<std::uint64_t> requests_{0};
};

}  // namespace kvx::rva
