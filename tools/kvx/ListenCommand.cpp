// kvx listen: prints received messages, one per line.

#include <fmt/format.h>

#include <string>

#include "platform/Text.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/DatumJson.h"
#include "tools/bus/Output.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/Fields.h"

namespace kvx::tool {

namespace {

// Prints every message, with "-" for a missing reply subject, and leaves after `count`.
class Printer : public RvDataCallback {
  public:
    Printer(bus::Client& client, const ListenOptions& options)
        : client_(client), options_(options) {}

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data, RvListener*) override {
        if (over_) return;
        const char* reply = replyTo != nullptr ? replyTo->subject() : nullptr;
        bus::printLine(options_.connection.json ? bus::messageAsJson(subject, reply, data)
                                                : textLine(subject, reply, data));
        over_ = !bus::flushOutput() || ++seen_ == options_.count;
        if (over_) client_.leave(bus::outputHasFailed() ? kFailure : kSuccess);
    }

  private:
    static std::string textLine(const char* subject, const char* reply, const RvDatum& data) {
        return fmt::format("{} {} {}", printable(subject),
                           reply != nullptr ? printable(reply) : "-", bus::datumText(data));
    }

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
        // Checked here, since the net would report an invalid one in its own format.
        const std::string full = client.qualified(subject);
        if (!isSubject(full) || client.net().RRNAddExService(full.c_str(), &printer) != kOk) {
            bus::complain("cannot listen on '" + full + "': it is no subject to listen on");
            return kFailure;
        }
    }
    if (options.count != 0) client.failOnLoss();
    return client.runUntilSignal([&] {
        if (talks(options.connection)) bus::complain("listening; Ctrl-C ends it");
    });
}

}  // namespace kvx::tool
