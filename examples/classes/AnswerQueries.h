#pragma once

#include "Devices.h"

/// Answers queries: the name of a device, or "*" for all of them. Of several copies of the service
/// only the active one answers.
class AnswerQueries : public RvDataCallback {
  public:
    AnswerQueries(CVekEngine& engine, const Devices& devices)
        : engine_(engine), devices_(devices) {}

    void onData(const char* subject, RvSender* replyTo, const RvDatum& question,
                RvListener* listener) override {
        if (replyTo == nullptr || !engine_.REIsActive()) return;
        int status = 0;
        RvSender* inbox = engine_.RRNNewSender(&status, replyTo->subject(), nullptr);
        CVekQryInfo query(subject, inbox, question, listener);
        const std::unique_ptr<char, decltype(&std::free)> text(query.RQIQuery(), std::free);
        answer(query, text ? text.get() : "");
    }

  private:
    void answer(CVekQryInfo& query, const std::string& wanted) {
        CVekTransport transport(&engine_);
        bool any = false;
        for (const Device& device : devices_.all()) {
            if (wanted != "*" && wanted != device.name) continue;
            addRecord(transport, device.name, device.state);
            transport.RTPreparePayloads(query.RQIVersion());
            any = true;
        }
        transport.RTSetDestination(query.RQIReplyTo());
        if (any) {
            transport.RTCreatePackets(query.RQIVersion(), true);
        } else {
            transport.RTSetError(STORE_ZERO_MATCHES);
            transport.RTNilResults();
        }
        transport.RTSendAll(false);
    }

    CVekEngine& engine_;
    const Devices& devices_;
};
