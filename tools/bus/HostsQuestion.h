#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "tools/bus/Client.h"

namespace kvx::bus {

/// Asks the bridge of this host who is joined. Main thread only, while the main loop runs.
class HostsQuestion : public RvDataCallback {
  public:
    using Json = nlohmann::ordered_json;
    enum class Outcome { Hosts, Silence, Unreadable };

    /// `answered` is called once, with an array of one object a host for `Hosts`. `client` must
    /// outlive this object.
    HostsQuestion(Client& client, std::function<void(Outcome, const Json&)> answered)
        : client_(client), answered_(std::move(answered)) {}

    /// False when the bus refuses the question; `answered` is not called then.
    [[nodiscard]] bool ask(unsigned long timeoutMs);

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;
    void onTimeout(RvListener* listener) override;

  private:
    void finish(Outcome outcome, const Json& hosts);

    Client& client_;
    std::function<void(Outcome, const Json&)> answered_;
    std::unique_ptr<RvSender> sender_;
    std::unique_ptr<RvListener> inbox_;
};

/// What was lost of one host's messages, by cause: "7 engine gone, 1 engine"; empty when nothing.
/// Throws `Json::exception` when it cannot be read.
std::string lostText(const HostsQuestion::Json& host);

}  // namespace kvx::bus
