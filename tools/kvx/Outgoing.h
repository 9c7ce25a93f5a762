#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "tools/bus/Client.h"
#include "tools/kvx/Options.h"

namespace kvx::tool {

/// A message that the command line describes, on its way out: payload, bus and sender.
///
/// Whatever is missing has been told on standard error by the end of the construction; only with
/// `status()` 0 is there a client, a sender and a payload.
class Outgoing {
  public:
    explicit Outgoing(const MessageOptions& options);

    /// `kSuccess`, or the exit status to end with.
    int status() const { return status_; }

    bus::Client& client() { return *client_; }
    RvSender& sender() { return *sender_; }
    const RvDatum& payload() const { return *payload_; }

    std::uint64_t payloadBytes() const;

    /// Tells that the bus refused the message. Returns the exit status.
    int refuse(const RvStatus& reason) const;

  private:
    int prepare(const MessageOptions& options);

    std::unique_ptr<RvDatum> payload_;
    std::string subject_;
    std::optional<bus::Client> client_;
    std::unique_ptr<RvSender> sender_;
    int status_;
};

}  // namespace kvx::tool
