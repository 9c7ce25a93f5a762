#include "StatusEngine.h"
#include "WhenActive.h"

int main() {
    Devices devices;
    StatusEngine engine(1, "status", "DEFAULT", SERV_STATUS);
    AnswerWhenActive answers(engine, devices);
    NotifyWhenActive reports(engine, devices);
    engine.RRNAddService(CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(SERV_STATUS),
                         &answers);
    engine.RRNAddService("DEVICE.STATE", &reports);
    CVekEnv environment;
    engine.REStartHeartBeat("Status", "DEFAULT", &environment);
    return engine.run();
}
