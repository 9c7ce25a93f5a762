#include "AnswerQueries.h"
#include "RunUntilSignal.h"
#include "TakeReports.h"

int main() {
    Devices devices;
    CVekEngine engine(1, "status", "DEFAULT", SERV_UNKNOWN);
    engine.RESetActive();
    AnswerQueries answers(engine, devices);
    TakeReports reports(engine, devices);
    engine.RRNAddService(CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(SERV_STATUS),
                         &answers);
    engine.RRNAddService("DEVICE.STATE", &reports);
    return runUntilSignal(engine);
}
