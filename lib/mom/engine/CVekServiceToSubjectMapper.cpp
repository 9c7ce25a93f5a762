#include "mom/engine/CVekServiceToSubjectMapper.h"

#include <strings.h>

#include <array>
#include <cstring>

#include "mom/engine/VekSubjects.h"

namespace {

// The subjects of a kind of service, indexed by its value; empty for none.
struct ServiceSubjects {
    const char* query = "";
    const char* notify = "";
};

constexpr std::array<ServiceSubjects, 28> kServiceSubjects = {{
    {"ZEMBRALIX.3.0.MODEL.QUERY", "ZEMBRALIX.3.0.MODEL.NOTIFY"},
    {"ZEMBRALIX.3.0.EVENT.QUERY", "ZEMBRALIX.3.0.EVENT.NOTIFY"},
    {"ZEMBRALIX.3.0.EVENT.PQUERY", "ZEMBRALIX.3.0.EVENT.NOTIFY"},
    {"ZEMBRALIX.3.0.CLASS.QUERY", "ZEMBRALIX.3.0.CLASS.NOTIFY"},
    {"ZEMBRALIX.3.0.AUTH.QUERY", "ZEMBRALIX.3.0.AUTH.NOTIFY"},
    {"ZEMBRALIX.3.0.MONITOR.QUERY", "ZEMBRALIX.3.0.MONITOR.NOTIFY"},
    {"ZEMBRALIX.3.0.MONITOR.AGENT.QUERY", "ZEMBRALIX.3.0.MONITOR.AGENT.NOTIFY"},
    {"ZEMBRALIX.3.0.STORE.QUERY", "ZEMBRALIX.3.0.STORE.NOTIFY"},
    {"ZEMBRALIX.3.0.DISCO.QUERY", "ZEMBRALIX.3.0.DISCO.NOTIFY"},
    {"ZEMBRALIX.3.0.DIST.QUERY", "ZEMBRALIX.3.0.DIST.NOTIFY"},
    {"ZEMBRALIX.3.0.CMNT.QUERY", "ZEMBRALIX.3.0.CMNT.NOTIFY"},
    {"ZEMBRALIX.3.0.EXEC.QUERY", "ZEMBRALIX.3.0.EXEC.NOTIFY"},
    {"ZEMBRALIX.3.0.PROC.QUERY", "ZEMBRALIX.3.0.PROC.NOTIFY"},
    {"ZEMBRALIX.3.0.STAT.QUERY", "ZEMBRALIX.3.0.STAT.NOTIFY"},
    {"ZEMBRALIX.3.0.TRAPMUX.QUERY", "ZEMBRALIX.3.0.TRAPMUX.NOTIFY"},
    {"ZEMBRALIX.3.0.HELPER.QUERY", "ZEMBRALIX.3.0.HELPER.NOTIFY"},
    {"ZEMBRALIX.3.0.DESKTOP.QUERY", "ZEMBRALIX.3.0.DESKTOP.NOTIFY"},
    {"ZEMBRALIX.3.0.CTRL.QUERY", "ZEMBRALIX.3.0.CTRL.NOTIFY"},
    {"ZEMBRALIX.3.0.DBSERVER.QUERY", "ZEMBRALIX.3.0.DBSERVER.NOTIFY"},
    {},  // SERV_UNKNOWN
    {"ZEMBRALIX.3.0.CONFIG.QUERY", "ZEMBRALIX.3.0.CONFIG.NOTIFY"},
    {},  // reserved
    {"KVX.MONITOR.TO.PLESSOR", ""},
    {"ZEMBRALIX.3.0.DIST.AGNT.SidTrapAdaptor", "ZEMBRALIX.3.0.DIST.NOTIFY"},
    {"KVX.JUBGATE.QUERY", ""},
    {VEK_SNMPHELPER_QUERY, ""},
    {VEK_VIRTUALDOMAIN_QUERY, ""},
    {VEK_DISCO_PINGFINDER_QUERY, ""},
}};

constexpr ServiceSubjects kNoSubjects;

const ServiceSubjects& subjectsOf(__serv_types value) {
    const auto place = static_cast<std::size_t>(value);
    return value >= 0 && place < kServiceSubjects.size() ? kServiceSubjects[place] : kNoSubjects;
}

constexpr char kOptionalPrefix[] = "Vek";
constexpr std::size_t kPrefixLength = sizeof kOptionalPrefix - 1;

bool vectorHolds(const CVekAtomVector& subjects, const char* subject) {
    for (unsigned i = 0; i < subjects.RAVSize(); ++i) {
        if (std::strcmp(subjects.RAVGetValue(i)->RAString(), subject) == 0) return true;
    }
    return false;
}

}  // namespace

constinit const SVekServiceName CVekServiceToSubjectMapper::ms_ServiceEnumMap[27] = {
    {"Model", SERV_MODEL},
    {"Ubra", SERV_UBRA},
    {"Events", SERV_EVENTS},
    {"Class", SERV_CLASS},
    {"Auth", SERV_AUTH},
    {"Monitor", SERV_MONITOR},
    {"MonitorAgent", SERV_MONITOR_AGENT},
    {"Store", SERV_STORE},
    {"Repository", SERV_STORE},
    {"Exec", SERV_EXEC},
    {"Comments", SERV_COMMENTS},
    {"Proc", SERV_PROC},
    {"Status", SERV_STATUS},
    {"Disco", SERV_DISCO},
    {"Helper", SERV_HELPER},
    {"Ctrl", SERV_CTRL},
    {"Desktop", SERV_DESKTOP},
    {"Dist", SERV_DIST},
    {"DbServer", SERV_DBSERVER},
    {"TrapMux", SERV_TRAPMUX},
    {"Config", SERV_CONFIG},
    {"SidTrap", SERV_SIDTRAP},
    {"JubGate", SERV_JUBGATE},
    {"Monitor2Plessor", SERV_MONITOR2PLESSOR},
    {"SnmpHelper", SERV_SNMPHELPER},
    {"VirtualDomain", SERV_VIRTUALDOMAIN},
    {"DiscoPingFinder", SERV_DISCOPINGFINDER},
};

__serv_types CVekServiceToSubjectMapper::ServiceStringToEnum(const char* name) {
    if (name == nullptr) return SERV_UNKNOWN;
    while (strncasecmp(name, kOptionalPrefix, kPrefixLength) == 0) name += kPrefixLength;
    for (const SVekServiceName& service : ms_ServiceEnumMap) {
        if (strcasecmp(name, service.name) == 0) return service.value;
    }
    return SERV_UNKNOWN;
}

const char* CVekServiceToSubjectMapper::EnumToServiceString(__serv_types value) {
    for (const SVekServiceName& service : ms_ServiceEnumMap) {
        if (service.value == value) return service.name;
    }
    return "";
}

const char* CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(__serv_types value) {
    return subjectsOf(value).query;
}

const char* CVekServiceToSubjectMapper::ServiceEnumToNotifySubject(__serv_types value) {
    return subjectsOf(value).notify;
}

const char* CVekServiceToSubjectMapper::ServiceStringToQuerySubject(const char* name) {
    return ServiceEnumToQuerySubject(ServiceStringToEnum(name));
}

const char* CVekServiceToSubjectMapper::ServiceStringToNotifySubject(const char* name) {
    return ServiceEnumToNotifySubject(ServiceStringToEnum(name));
}

CVekAtomVector* CVekServiceToSubjectMapper::QuerySubjectsAsVector() {
    auto subjects = std::make_unique<CVekAtomVector>(0);
    for (const SVekServiceName& service : ms_ServiceEnumMap) {
        const char* const subject = ServiceEnumToQuerySubject(service.value);
        if (vectorHolds(*subjects, subject)) continue;
        subjects->RAVAddToEnd(new CVekAtom(subject));
    }
    return subjects.release();
}
