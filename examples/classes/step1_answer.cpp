#include "AnswerQueries.h"
#include "RunUntilSignal.h"

int main() {
    Devices devices;
    devices.set("core-1", "up");
    devices.set("edge-1", "down");

    CVekEngine engine(1, "status", "DEFAULT", SERV_UNKNOWN);
    engine.RESetActive();
    AnswerQueries answers(engine, devices);
    engine.RRNAddService(CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(SERV_STATUS),
                         &answers);
    return runUntilSignal(engine);
}
