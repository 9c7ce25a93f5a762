// Beats as bytes, time as numbers: no bus here.

#include "tools/beats/BeatTable.h"

#include "foundation/foundation.h"
#include "mom/transport/CVekTransport.h"
#include "tests/support/Packets.h"

namespace kvx::beats {
namespace {

using Packet = std::vector<unsigned char>;

// The packets that a transport makes of records.
Packet packetOf(const std::vector<const CVekBaseRecord*>& records, EVekTransHdr version) {
    CVekTransport transport(nullptr);
    for (const auto* record : records) transport.RTAddRecord(record);
    transport.RTCreatePackets(version, true);
    const std::string bytes = test::packetsOf(transport).at(0);
    return {bytes.begin(), bytes.end()};
}

struct BeatRecord : CVekBaseRecord {
    explicit BeatRecord(const std::string& service, long long pid = 77, int type = 0) {
        RRAddOrSetValue("service", new CVekAtom(service.c_str()));
        RRAddOrSetValue("domain", new CVekAtom("NET"));
        RRAddOrSetValue("host", new CVekAtom("h1"));
        RRAddOrSetValue("pid", new CVekAtom(pid));
        RRAddOrSetValue("type", new CVekAtom(type));
    }
    BeatRecord& with(const char* name, CVekAtom* value) {
        RRAddOrSetValue(name, value);
        return *this;
    }
    Packet packet() const { return packetOf({this}, VEK_TRANS_V0); }
};

class Beats : public ::testing::Test {
  protected:
    bool beat(const std::string& service, Milliseconds now, long long pid = 77, int type = 0) {
        return table.hear(BeatRecord(service, pid, type).packet(), now);
    }
    Service only() const {
        const auto all = table.services(0);
        EXPECT_EQ(all.size(), 1U);
        return all.empty() ? Service{} : all.front();
    }

    BeatTable table;
};

TEST_F(Beats, CountWhatCameAndWhatDidNot) {
    // The first two beats of an engine are 8.5 s apart, all others 10 s.
    for (const Milliseconds now : {1500, 10000, 20000, 30900}) EXPECT_TRUE(beat("Model", now));
    EXPECT_EQ(only().beats, 4U);
    EXPECT_EQ(only().missed(30900 + 10999), 0U);
    EXPECT_EQ(only().overdue(30900 + 11000), 1U);
    EXPECT_EQ(only().overdue(30900 + 31000), 3U);
    EXPECT_TRUE(beat("Model", 30900 + 31000, 77, 1));
    EXPECT_EQ(only().overdue(30900 + 31000), 0U);
    EXPECT_EQ(only().missed(30900 + 42000), 4U);
    EXPECT_EQ(
        serviceAsJson(only(), 30900 + 42000),
        R"({"service":"Model","domain":"NET","host":"h1","pid":77,"role":"primary","age_seconds":11.0,)"
        R"("known_seconds":71.4,"beats":5,"missed":4,"overdue":1,"silent":true,"group":null,"tier":null,)"
        R"("role_since_ms":null,"role_seen":false})");
    table.resume(30900 + 42000);
    EXPECT_EQ(only().missed(30900 + 52900), 3U);  // the bus was away: that beat was not missed
}

TEST_F(Beats, AreToldApartByProcess) {
    EXPECT_TRUE(beat("Model", 0, 2, 1));
    EXPECT_TRUE(beat("Model", 0, 1));
    EXPECT_TRUE(beat("Class", 0, 2));
    EXPECT_TRUE(table.hear(BeatRecord("Class", 2).with("domain", new CVekAtom("A")).packet(), 0));
    EXPECT_TRUE(table.hear(BeatRecord("Class", 2).with("host", new CVekAtom("h0")).packet(), 0));
    std::string order;
    for (const auto& service : table.services(0)) {
        order += service.beat.service + '/' + service.beat.domain + '/' + service.beat.host + '/' +
                 std::to_string(service.beat.pid) + roleOf(service)[0] + ' ';
    }
    EXPECT_EQ(order,
              "Class/A/h1/2b Class/NET/h0/2b Class/NET/h1/2b Model/NET/h1/1b Model/NET/h1/2p ");
}

TEST_F(Beats, ThatAreNoneAreIgnoredAndCounted) {
    const BeatRecord good("Model");
    const Packet packet = good.packet();
    std::vector<Packet> hostile;
    for (std::size_t length = 0; length < packet.size(); ++length) {
        hostile.emplace_back(packet.begin(), packet.begin() + static_cast<long>(length));
    }
    for (const auto& [offset, value] : std::vector<std::pair<std::size_t, unsigned char>>{
             {15, 2}, {8, 0x80}, {17, 1}, {19, 1}, {21, 255}, {20, 255}, {24, 255}, {27, 0}}) {
        hostile.push_back(packet);
        hostile.back()[offset] = value;
    }
    hostile.push_back(packet);
    hostile.back().push_back(0);
    hostile.push_back(packetOf({&good, &good}, VEK_TRANS_V1));
    hostile.push_back(BeatRecord("Model", 0).packet());
    hostile.push_back(BeatRecord("Model", -5).packet());
    hostile.push_back(BeatRecord("Model", 77, 2).packet());
    hostile.push_back(BeatRecord(std::string(256, 'x')).packet());
    hostile.push_back(BeatRecord("Model").with("pid", new CVekAtom("77")).packet());
    hostile.push_back(BeatRecord("Model").with("host", new CVekAtom(5)).packet());
    hostile.push_back(
        BeatRecord("M").with("more", new CVekAtom(std::string(4096, 'x').c_str())).packet());
    for (const auto& bytes : hostile) EXPECT_FALSE(table.hear(bytes, 0)) << bytes.size();
    EXPECT_EQ(table.counters().ignored, hostile.size());
    EXPECT_TRUE(table.services(0).empty());
    EXPECT_TRUE(table.hear(BeatRecord("M").with("more", new CVekAtom(1)).packet(), 0));
}

TEST_F(Beats, OfTheSilentAreForgotten) {
    EXPECT_TRUE(beat("Model", 0));
    EXPECT_TRUE(beat("Class", 1));
    EXPECT_EQ(table.silent(11000), 1U);
    table.forgetSilent(kForgetAfter);
    EXPECT_EQ(only().beat.service, "Class");
    EXPECT_TRUE(beat("Class", 2 * kForgetAfter));
    EXPECT_EQ(only().beats, 1U);  // it starts anew
    EXPECT_EQ(table.counters().forgotten, 2U);
}

TEST_F(Beats, NeverFillTheMemory) {
    for (std::size_t i = 0; i < kMostServices; ++i) {
        EXPECT_TRUE(beat("Model", 0, static_cast<long long>(i) + 1));
    }
    EXPECT_TRUE(beat("Model", 1, 1));  // from here on the second one has been silent longest
    EXPECT_TRUE(beat("Newcomer", 2));
    const auto all = table.services(0);
    ASSERT_EQ(all.size(), kMostServices);
    EXPECT_EQ(all[0].beat.pid, 1);
    EXPECT_EQ(all[1].beat.pid, 3);
    EXPECT_EQ(all.back().beat.service, "Newcomer");
}

// 0x7D0 = 2000 is the process, 0x65F00000 s the time of its session.
MemberBeat memberBeat(bool isActive, const std::string& id = "7F000001.7D065F000001.1") {
    return {.id = id,
            .group = "g.Model.NET.3",
            .startMs = 0x65F00000LL * 1000 + 700,
            .isActive = isActive};
}

TEST_F(Beats, OfAGroupTellRolesAndSinceWhen) {
    const std::int64_t joined = memberBeat(false).startMs;
    const auto hear = [&](MemberBeat beat, Milliseconds now) {
        table.hear(beat, now, joined + now);
    };
    const auto shown = [&](Milliseconds now) {
        const Service one = table.services(now).at(0);
        const auto json = serviceAsJson(one, now);
        return json.substr(json.find("\"silent\":")) + " " + roleOf(one);
    };
    EXPECT_TRUE(beat("Model", 1500, 2000));
    hear(memberBeat(false), 1500);
    EXPECT_EQ(
        shown(3500),
        R"("silent":false,"group":"g.Model","tier":3,"role_since_ms":1710227456700,"role_seen":true} backup)");
    hear(memberBeat(true), 4800);
    hear(memberBeat(true), 6300);
    EXPECT_EQ(
        shown(10800),
        R"("silent":false,"group":"g.Model","tier":3,"role_since_ms":1710227461500,"role_seen":true} primary)");
    EXPECT_TRUE(table.services(10801).at(0).isSilent(10801));
    // What it was in between was not heard.
    hear(memberBeat(true), 12000);
    EXPECT_EQ(
        shown(12000),
        R"("silent":false,"group":"g.Model","tier":3,"role_since_ms":1710227468700,"role_seen":false} primary)");
    // Two that live are not told apart, two hosts' processes neither; one that has left is no
    // other.
    hear(memberBeat(false, "7F000001.7D065F000002.2"), 12500);
    EXPECT_FALSE(table.services(12500).at(0).member);
    auto farewell = memberBeat(false);
    farewell.isLeaving = true;
    hear(farewell, 13000);
    EXPECT_EQ(table.services(13000).at(0).member->roleSince, 12500);
    EXPECT_TRUE(
        table.hear(BeatRecord("Model", 2000).with("host", new CVekAtom("h2")).packet(), 13000));
    EXPECT_FALSE(table.services(13000).at(0).member);
    for (const char* id :
         {"", ".", "7F000001", "7F000001.", "7F000001.65F00000", "7F000001.7DX65F000001"}) {
        EXPECT_FALSE(processOf(memberBeat(false, id))) << id;
    }
    for (const char* group :
         {"", "NET.3", "g.NET", "g.NET.x", "g.NET.", "g.OTHER.3", "g.NET.3.3"}) {
        EXPECT_FALSE(groupNameOf(group, "NET")) << group;
    }
}

}  // namespace
}  // namespace kvx::beats
