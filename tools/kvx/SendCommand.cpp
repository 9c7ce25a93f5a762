// kvx send and kvx request: publish a message; send waits until it is written, request for an
// answer.

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Text.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/DatumJson.h"
#include "tools/bus/Output.h"
#include "tools/bus/Ticker.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/Fields.h"
#include "tools/kvx/Flush.h"
#include "tools/kvx/Window.h"

namespace kvx::tool {

namespace {

// A message from the command line, with its client and sender.
//
// The constructor reports errors on standard error; only with `status()` 0 are there a client, a
// sender and a payload.
class Outgoing {
  public:
    explicit Outgoing(const MessageOptions& options);

    // `kSuccess`, or the exit status to end with.
    int status() const { return status_; }

    bus::Client& client() { return *client_; }
    RvSender& sender() { return *sender_; }
    const RvDatum& payload() const { return *payload_; }

    std::uint64_t payloadBytes() const;

    // Reports that the bus refused the message. Returns the exit status.
    int refuse(const RvStatus& reason) const;

  private:
    int prepare(const MessageOptions& options);

    std::unique_ptr<RvDatum> payload_;
    std::string subject_;
    std::optional<bus::Client> client_;
    std::unique_ptr<RvSender> sender_;
    int status_;
};

Outgoing::Outgoing(const MessageOptions& options) : status_(prepare(options)) {}

int Outgoing::prepare(const MessageOptions& options) {
    PayloadProblem problem;
    payload_ = buildPayload(options.payload, problem);
    if (!payload_) {
        bus::complain(problem.text);
        return problem.status;
    }
    if (!options.reply.empty() && !isSubject(options.reply)) {
        bus::complain(fmt::format("the reply subject '{}' is no subject", options.reply));
        return kFailure;
    }
    client_.emplace(options.connection);
    if (!client_->isUp()) return kFailure;
    subject_ = client_->qualified(options.subject);
    sender_.reset(client_->session().newSender(
        subject_.c_str(), options.reply.empty() ? nullptr : options.reply.c_str()));
    return sender_ ? kSuccess : refuse(client_->session().status());
}

std::uint64_t Outgoing::payloadBytes() const {
    const bool isMessage = payload_->type() == RVMSG_MSG;
    return isMessage ? static_cast<const RvMsg&>(*payload_).size() : payload_->size();
}

int Outgoing::refuse(const RvStatus& reason) const {
    bus::complain(fmt::format("cannot send on '{}': {}", subject_, reason.text()));
    return kFailure;
}

class PrintedAnswer : public RvDataCallback {
  public:
    PrintedAnswer(bus::Client& client, const RequestOptions& options)
        : client_(client), options_(options) {}

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data, RvListener*) override {
        if (over_) return;
        over_ = true;
        const char* reply = replyTo != nullptr ? replyTo->subject() : nullptr;
        bus::printLine(options_.connection.json ? bus::messageAsJson(subject, reply, data)
                                                : bus::datumText(data));
        client_.leave(kSuccess);
    }

    void onTimeout(RvListener*) override {
        if (over_) return;
        bus::complain(fmt::format("no answer on '{}' within {:g} s", options_.subject,
                                  options_.timeoutSeconds));
        client_.leave(kFailure);
    }

  private:
    bus::Client& client_;
    const RequestOptions& options_;
    bool over_ = false;
};

}  // namespace

int send(const SendOptions& options) {
    Outgoing message(options);
    if (message.status() != kSuccess) return message.status();
    const std::uint64_t window = Window(message.payloadBytes()).messages();
    for (std::uint64_t i = 1; i <= options.repeat; ++i) {
        const RvStatus status = message.sender().send(message.payload());
        if (!(status == RvStatus(0))) return message.refuse(status);
        if ((i == options.repeat || i % window == 0) && !flush(message.client())) return kFailure;
    }
    return kSuccess;
}

int request(const RequestOptions& options) {
    Outgoing message(options);
    if (message.status() != kSuccess) return message.status();
    bus::Client& client = message.client();
    PrintedAnswer answer(client, options);
    std::unique_ptr<RvListener> listener;
    std::optional<bus::Progress> progress;
    client.leaveWithoutDaemon();
    return client.run([&] {
        progress.emplace(client.net(), [&] {
            return "waiting for an answer on " + shortened(options.subject, 40);
        });
        const auto timeoutMs = static_cast<unsigned long>(options.timeoutSeconds * 1000);
        listener.reset(
            message.sender().sendRequest(message.payload(), timeoutMs, &answer, nullptr));
        if (!listener) client.leave(message.refuse(client.session().status()));
    });
}

}  // namespace kvx::tool
