// A service for the tests: answers the query "rows <n>" with n records, and "stop" by ending.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekQryInfo.h"
#include "mom/transport/CVekTransport.h"

namespace {

class AnsweringEngine : public CVekEngine {
  public:
    AnsweringEngine() : CVekEngine(1, "answering", "NET", SERV_MODEL) {}
    void RRNPostInitFns() override {
        std::puts("ready");
        std::fflush(stdout);
    }
};

class Stop : public RvTimerCallback {
  public:
    void onTimer(RvTimer* timer) override {
        auto* const engine = static_cast<CVekRvNet*>(timer->closure());
        if (static_cast<CVekEngine*>(engine)->RESendQueueLength() == 0) engine->RRNStopLoop();
    }
};

class Answer : public RvDataCallback {
  public:
    explicit Answer(CVekEngine& engine) : engine_(engine) {}

    void onData(const char* subject, RvSender* replyTo, const RvDatum& datum,
                RvListener* listener) override {
        int status = 0;
        CVekQryInfo query(subject, engine_.RRNNewSender(&status, replyTo->subject(), nullptr),
                          datum, listener);
        const kvx::Text text(query.RQIQuery());
        const std::string oql = text.get();
        if (oql == "stop") engine_.RRNAddRepeatTimer(1, &stop_);
        answer(query, oql.rfind("rows ", 0) == 0 ? std::atoi(oql.c_str() + 5) : 0);
    }

  private:
    void answer(CVekQryInfo& query, int rows) {
        CVekTransport transport(&engine_);
        for (int row = 0; row < rows; ++row) {
            CVekBaseRecord record;
            record.RRAddOrSetValue("row", new CVekAtom(row));
            transport.RTAddRecord(&record);
            transport.RTPreparePayloads(query.RQIVersion());
        }
        transport.RTSetDestination(query.RQIReplyTo());
        if (rows == 0) {
            transport.RTSetError(STORE_ZERO_MATCHES);
            transport.RTNilResults();
        }
        transport.RTCreatePackets(query.RQIVersion(), true);
        transport.RTSendAll(false);
    }

    CVekEngine& engine_;
    Stop stop_;
};

}  // namespace

int main() {
    AnsweringEngine engine;
    engine.RESetMaxSendRate(10000);
    const char* const subject = CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(SERV_MODEL);
    if (engine.RRNTakeService(subject, new Answer(engine)) != 1) return 1;
    engine.REDoIt();
    return 0;
}
