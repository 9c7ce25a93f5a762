#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvx::rva {

/// A request. Names of headers are in lower case.
struct HttpRequest {
    std::string method;
    std::string path;        ///< decoded, without the query
    bool hasChunks = false;  ///< the client speaks HTTP/1.1, so it reads chunked answers
    std::multimap<std::string, std::string> headers;
    std::multimap<std::string, std::string> parameters;  ///< of the query, decoded
    std::string body;

    /// The value of a header that is there exactly once, else an empty text.
    [[nodiscard]] std::string header(const std::string& name) const;
    /// The values of a parameter, in their order.
    [[nodiscard]] std::vector<std::string> all(const std::string& parameter) const;
};

/// Reads a request's head, up to and with the empty line; nothing when it is none. Any bytes. The
/// host of a target in absolute form, http://HOST/PATH, takes the place of the `Host`.
[[nodiscard]] std::optional<HttpRequest> readHead(std::string_view head);

/// The size of the body that follows a head; nothing when it cannot be known: two sizes, no number,
/// or a transfer coding.
[[nodiscard]] std::optional<std::size_t> bodySize(const HttpRequest& head);

}  // namespace kvx::rva
