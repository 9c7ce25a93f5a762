// The three ways of naming a service.

#include "mom/engine/CVekServiceToSubjectMapper.h"

using Mapper = CVekServiceToSubjectMapper;

namespace {

struct Named {
    const char* name;
    int value;
    const char* query;
    const char* notify;
};

// What other processes depend on, as a user of the table sees it.
const Named kServices[] = {
    {"Model", 0, "ZEMBRALIX.3.0.MODEL.QUERY", "ZEMBRALIX.3.0.MODEL.NOTIFY"},
    {"Events", 1, "ZEMBRALIX.3.0.EVENT.QUERY", "ZEMBRALIX.3.0.EVENT.NOTIFY"},
    {"Ubra", 2, "ZEMBRALIX.3.0.EVENT.PQUERY", "ZEMBRALIX.3.0.EVENT.NOTIFY"},
    {"MonitorAgent", 6, "ZEMBRALIX.3.0.MONITOR.AGENT.QUERY", "ZEMBRALIX.3.0.MONITOR.AGENT.NOTIFY"},
    {"Repository", 7, "ZEMBRALIX.3.0.STORE.QUERY", "ZEMBRALIX.3.0.STORE.NOTIFY"},
    {"Comments", 10, "ZEMBRALIX.3.0.CMNT.QUERY", "ZEMBRALIX.3.0.CMNT.NOTIFY"},
    {"Config", 20, "ZEMBRALIX.3.0.CONFIG.QUERY", "ZEMBRALIX.3.0.CONFIG.NOTIFY"},
    {"Monitor2Plessor", 22, "KVX.MONITOR.TO.PLESSOR", ""},
    {"SidTrap", 23, "ZEMBRALIX.3.0.DIST.AGNT.SidTrapAdaptor", "ZEMBRALIX.3.0.DIST.NOTIFY"},
    {"JubGate", 24, "KVX.JUBGATE.QUERY", ""},
    {"DiscoPingFinder", 27, "ZEMBRALIX.3.0.DISCO.PINGFINDER.QUERY", ""},
};

}  // namespace

TEST(ServiceNames, LeadToValuesAndSubjects) {
    for (const Named& service : kServices) {
        SCOPED_TRACE(service.name);
        EXPECT_EQ(Mapper::ServiceStringToEnum(service.name), service.value);
        EXPECT_STREQ(Mapper::ServiceStringToQuerySubject(service.name), service.query);
        EXPECT_STREQ(Mapper::ServiceStringToNotifySubject(service.name), service.notify);
    }
    EXPECT_STREQ(Mapper::EnumToServiceString(SERV_STORE), "Store");
}

TEST(ServiceNames, AreFoundInAnyCaseAndWithThePrefixOrGiveEmptyTexts) {
    for (const char* name : {"model", "MODEL", "VekModel", "vekmodel", "VEKVEKModel"}) {
        EXPECT_EQ(Mapper::ServiceStringToEnum(name), SERV_MODEL) << name;
    }
    for (const char* name : {"Model ", "Vek", "VEKvek", "", "Mode", "Models"}) {
        EXPECT_EQ(Mapper::ServiceStringToEnum(name), SERV_UNKNOWN) << name;
    }
    EXPECT_EQ(Mapper::ServiceStringToEnum(nullptr), SERV_UNKNOWN);
    EXPECT_STREQ(Mapper::ServiceStringToQuerySubject(nullptr), "");
    for (const int value : {19, 21, -1, 28, 1000000}) {
        SCOPED_TRACE(value);
        const auto type = static_cast<__serv_types>(value);
        EXPECT_STREQ(Mapper::EnumToServiceString(type), "");
        EXPECT_STREQ(Mapper::ServiceEnumToQuerySubject(type), "");
        EXPECT_STREQ(Mapper::ServiceEnumToNotifySubject(type), "");
    }
}

TEST(ServiceNames, ListEveryQuerySubjectOnce) {
    const std::unique_ptr<CVekAtomVector> subjects(Mapper::QuerySubjectsAsVector());
    ASSERT_EQ(subjects->RAVSize(), 26U);
    EXPECT_STREQ(subjects->RAVGetValue(0)->RAString(), "ZEMBRALIX.3.0.MODEL.QUERY");
    EXPECT_STREQ(subjects->RAVGetValue(1)->RAString(), "ZEMBRALIX.3.0.EVENT.PQUERY");
    EXPECT_STREQ(subjects->RAVGetValue(7)->RAString(), "ZEMBRALIX.3.0.STORE.QUERY");
    EXPECT_STREQ(subjects->RAVGetValue(25)->RAString(), "ZEMBRALIX.3.0.DISCO.PINGFINDER.QUERY");
    std::set<std::string> distinct;
    for (unsigned i = 0; i < 26; ++i) distinct.insert(subjects->RAVGetValue(i)->RAString());
    EXPECT_EQ(distinct.size(), 26U);
}
