#include "AnswerQueries.h"
#include "StatusEngine.h"
#include "TakeReports.h"

int main() {
    Devices devices;
    StatusEngine engine(1, "status", "DEFAULT", SERV_UNKNOWN);
    AnswerQueries answers(engine, devices);
    TakeReports reports(engine, devices);
    engine.RRNAddService(CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(SERV_STATUS),
                         &answers);
    engine.RRNAddService("DEVICE.STATE", &reports);
    return engine.run();
}
