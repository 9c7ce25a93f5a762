// kvx listen: prints what comes, one message a line.

#include <cstdio>
#include <string>

#include "platform/File.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/DatumJson.h"

namespace kvx::tool {

namespace {

// Prints every message, with its reply subject as "-" when there is none, and leaves after `count`.
class Printer : public RvDataCallback {
  public:
    Printer(bus::Client& client, const ListenOptions& options)
        : client_(client), options_(options) {}

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data, RvListener*) override {
        if (over_) return;
        const char* reply = replyTo != nullptr ? replyTo->subject() : nullptr;
        if (options_.connection.json) {
            std::puts(messageAsJson(subject, reply, data).c_str());
        } else {
            std::printf("%s %s ", subject, reply != nullptr ? reply : "-");
            data.print(stdout);
            std::putchar('\n');
        }
        std::fflush(stdout);
        if (std::ferror(stdout) != 0 || ++seen_ == options_.count) {
            over_ = true;
            client_.leave(kSuccess);
        }
    }

  private:
    bus::Client& client_;
    const ListenOptions& options_;
    std::uint64_t seen_ = 0;
    bool over_ = false;
};

}  // namespace

int listen(const ListenOptions& options) {
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    Printer printer(client, options);
    for (const auto& subject : options.subjects) {
        const std::string full = client.qualified(subject);
        if (client.net().RRNAddExService(full.c_str(), &printer) != 1) {
            bus::complain("cannot listen on '" + full + "'");
            return kFailure;
        }
    }
    return client.runUntilSignal([] {
        if (kvx::platform::isTerminal(stderr)) bus::complain("listening; Ctrl-C ends it");
    });
}

}  // namespace kvx::tool
