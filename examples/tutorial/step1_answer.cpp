#include "AnswerQueries.h"
#include "StatusEngine.h"

int main() {
    Devices devices;
    devices.set("core-1", "up");
    devices.set("edge-1", "down");

    StatusEngine engine(1, "status", "DEFAULT", SERV_UNKNOWN);
    AnswerQueries answers(engine, devices);
    engine.RRNAddService(CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(SERV_STATUS),
                         &answers);
    return engine.run();
}
