#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rva/HttpAnswer.h"
#include "rva/HttpRequest.h"

namespace kvx::rva {

/// Who is let in: whose `Host` and `Origin` are right, and who has the token, if there is one.
/// Constant once made; any thread.
class Gate {
  public:
    /// `hosts` are names besides those of the loopback. Without a token nobody needs one.
    Gate(std::vector<std::string> hosts, std::string token);

    /// Why a request is not answered, whoever asks; nothing when it is.
    [[nodiscard]] std::optional<HttpReply> refuseStranger(const HttpRequest& head) const;
    /// The same of what is of the bus: it needs the token, and is not for what a browser asks for
    /// on behalf of another site, as with `<img>`, which sends no `Origin`.
    [[nodiscard]] std::optional<HttpReply> refuseOutsider(const HttpRequest& head) const;

    /// `GET /api/login`, `POST /api/login` and `POST /api/logout`.
    [[nodiscard]] HttpReply tell(const HttpRequest& request) const;
    [[nodiscard]] HttpReply login(const HttpRequest& request) const;
    [[nodiscard]] HttpReply logout(const HttpRequest& request) const;

  private:
    [[nodiscard]] bool isIn(const HttpRequest& head) const;
    [[nodiscard]] HttpReply withCookie(const HttpRequest& request, std::string_view value,
                                       std::string_view more) const;

    const std::vector<std::string> hosts_;
    const std::string token_;
    const std::string key_;  // what the cookie of those who have logged in says; new each start
};

/// Whether both are the same, in a time that depends on their lengths only.
[[nodiscard]] bool isSameSecret(std::string_view one, std::string_view other);

}  // namespace kvx::rva
