// kvx request: one question, one answer.

#include <fmt/format.h>

#include <cstdio>
#include <memory>

#include "tools/kvx/Client.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/DatumJson.h"
#include "tools/kvx/Fields.h"

namespace kvx::tool {

namespace {

class Answer : public RvDataCallback {
  public:
    Answer(Client& client, const RequestOptions& options) : client_(client), options_(options) {}

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data, RvListener*) override {
        if (over_) return;
        over_ = true;
        const char* reply = replyTo != nullptr ? replyTo->subject() : nullptr;
        if (options_.connection.json) {
            std::puts(messageAsJson(subject, reply, data).c_str());
        } else {
            data.print(stdout);
            std::putchar('\n');
        }
        client_.leave(kSuccess);
    }

    void onTimeout(RvListener*) override {
        complain(fmt::format("no answer on '{}' within {:g} s", options_.subject,
                             options_.timeoutSeconds));
        client_.leave(kFailure);
    }

  private:
    Client& client_;
    const RequestOptions& options_;
    bool over_ = false;
};

}  // namespace

int request(const RequestOptions& options) {
    std::string problem;
    const auto datum = buildPayload(options.payload, problem);
    if (!datum) {
        complain(problem);
        return kUsage;
    }
    Client client(options.connection);
    if (!client.isUp()) return kFailure;
    const std::string subject = client.qualified(options.subject);
    const std::unique_ptr<RvSender> sender(client.session().newSender(subject.c_str()));
    Answer answer(client, options);
    std::unique_ptr<RvListener> listener;
    return client.run([&] {
        const auto timeoutMs = static_cast<unsigned long>(options.timeoutSeconds * 1000);
        if (sender) listener.reset(sender->sendRequest(*datum, timeoutMs, &answer, nullptr));
        if (listener) return;
        const RvStatus status = client.session().status();
        complain(fmt::format("cannot send on '{}': {}", subject, status.text()));
        client.leave(kFailure);
    });
}

}  // namespace kvx::tool
