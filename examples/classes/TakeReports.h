#pragma once

#include "Devices.h"

/// Publishes one device on the notify subject of the service. Any thread.
inline void notify(CVekEngine& engine, const std::string& name, const std::string& state) {
    CVekTransport transport(&engine);
    addRecord(transport, name, state);
    transport.RTSetDestination(CVekServiceToSubjectMapper::ServiceEnumToNotifySubject(SERV_STATUS));
    transport.RTCreatePackets(VEK_TRANS_V0, true);
    transport.RTSendAll(false);
}

/// Receives the reports of devices, messages with "name" and "state". Every copy of the service
/// does, so that a backup has the same data as the primary; only the active one publishes changes.
class TakeReports : public RvDataCallback {
  public:
    TakeReports(CVekEngine& engine, Devices& devices) : engine_(engine), devices_(devices) {}

    void onData(const char*, RvSender*, const RvDatum& report, RvListener*) override {
        if (report.type() != RVMSG_MSG) return;
        const RvMsg fields(const_cast<void*>(report.data()));
        char name[64];
        char state[16];
        if (fields.get("name", name, sizeof name).code() != 0) return;
        if (fields.get("state", state, sizeof state).code() != 0) return;
        if (devices_.set(name, state) && engine_.REIsActive()) notify(engine_, name, state);
    }

  private:
    CVekEngine& engine_;
    Devices& devices_;
};
