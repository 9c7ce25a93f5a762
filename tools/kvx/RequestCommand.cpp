// kvx request: one question, one answer.

#include <fmt/format.h>

#include <memory>
#include <optional>

#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/bus/Progress.h"
#include "tools/bus/Text.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/DatumJson.h"
#include "tools/kvx/Outgoing.h"

namespace kvx::tool {

namespace {

class PrintedAnswer : public RvDataCallback {
  public:
    PrintedAnswer(bus::Client& client, const RequestOptions& options)
        : client_(client), options_(options) {}

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data, RvListener*) override {
        if (over_) return;
        over_ = true;
        const char* reply = replyTo != nullptr ? replyTo->subject() : nullptr;
        bus::printLine(options_.connection.json ? messageAsJson(subject, reply, data)
                                                : datumText(data));
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
            return "waiting for an answer on " + bus::shortened(options.subject, 40);
        });
        const auto timeoutMs = static_cast<unsigned long>(options.timeoutSeconds * 1000);
        listener.reset(
            message.sender().sendRequest(message.payload(), timeoutMs, &answer, nullptr));
        if (!listener) client.leave(message.refuse(client.session().status()));
    });
}

}  // namespace kvx::tool
