#include "AnswerQueries.h"
#include "FindSilent.h"
#include "RunUntilSignal.h"
#include "TakeReports.h"

int main(int argc, char** argv) {
    const std::chrono::milliseconds patience(argc > 1 ? std::strtol(argv[1], nullptr, 10) : 60000);
    Devices devices;
    CVekEngine engine(1, "status", "DEFAULT", SERV_STATUS);
    AnswerQueries answers(engine, devices);
    TakeReports reports(engine, devices);
    engine.RRNAddService(CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(SERV_STATUS),
                         &answers);
    engine.RRNAddService("DEVICE.STATE", &reports);
    CVekEnv environment;
    engine.REStartHeartBeat("Status", "DEFAULT", &environment);

    FindSilent findSilent(engine, devices, patience);
    CVekTimedWorkMgr polls(&engine, 1, 1000, 2, nullptr, FALSE);
    polls.RTWMAddPoll(&findSilent);
    polls.RTWMDistributePolls();
    return runUntilSignal(engine);
}
