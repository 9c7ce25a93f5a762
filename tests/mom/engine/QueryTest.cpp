// Query records, snoops and the client's one-shot sender, without a bus.

#include <cstring>

#include "mom/engine/CVekClient.h"
#include "mom/engine/CVekClientSender.h"
#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekQryInfo.h"
#include "mom/engine/CVekSnoop.h"
#include "mom/engine/CVekUpdWork.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/Home.h"
#include "tests/support/Nets.h"

using namespace kvx::test;

namespace {

class Query : public ::testing::Test {
  protected:
    std::string textOf(CVekQryInfo& query) {
        const kvx::Text text(query.RQIQuery());
        return text ? text.get() : "(null)";
    }

    Home home{"-"};
    ErrorRecorder errors;
    CVekEngine engine{1, "grp", "NET", SERV_UNKNOWN};
    OnData ignore;
};

}  // namespace

TEST_F(Query, TravelsAsAMessageOfTextAndVersion) {
    EXPECT_EQ(CVekQryInfo::RQISendOQL("select * from x", "S", &ignore, &engine, nullptr, TRUE), 1);
    const std::unique_ptr<CVekSendQueueItem> item(engine.RENextSendItem());
    ASSERT_NE(item, nullptr);
    EXPECT_STREQ(item->m_subject, "S.NET");
    CVekQryInfo query("S.NET", nullptr, *item->m_datum, nullptr);
    EXPECT_STREQ(query.RQISubject(), "S.NET");
    EXPECT_EQ(textOf(query), "select * from x");
    EXPECT_EQ(query.RQIVersion(), VEK_TRANS_V1);
    EXPECT_NE(query.RQIDatum(), item->m_datum);
}

TEST_F(Query, OutlivesTheMessageItWasMadeOf) {
    RvMsg message;
    message.append("QryInfoOQLStr", "select * from x");
    auto plain = std::make_unique<RvDatum>(message);  // a message, but not as an RvMsg
    CVekQryInfo query("S", nullptr, *plain, nullptr);
    EXPECT_NE(query.RQIDatum()->data(), plain->data());
    plain.reset();
    EXPECT_EQ(textOf(query), "select * from x");
}

TEST_F(Query, MayBeAStringButNothingElse) {
    CVekQryInfo query("S", nullptr, RvDatum(RVMSG_STRING, 4, "abc"), nullptr);
    EXPECT_EQ(textOf(query), "abc");
    EXPECT_EQ(query.RQIVersion(), VEK_TRANS_V0);
    const std::int32_t number = 5;
    query.RQIReplaceDatum(new RvDatum(RVMSG_INT, 4, &number));
    EXPECT_EQ(textOf(query), "(null)");
    EXPECT_EQ(errors.take(),
              (std::vector<Report>{
                  {-220439, "CVekQryInfo", 265, "CVekQryInfo::RQIQuery Unexpected message type"}}));
    query.RQIReplaceDatum(new RvMsg(0UL));
    EXPECT_EQ(textOf(query), "");
    EXPECT_EQ(query.RQIVersion(), VEK_TRANS_V0);
    query.RQIReplaceDatum(nullptr);
    EXPECT_EQ(textOf(query), "(null)");
}

TEST_F(Query, NeedsTextSubjectAndANetwork) {
    EXPECT_EQ(CVekQryInfo::RQISendOQL(nullptr, "S", &ignore, &engine, nullptr, TRUE), -220402);
    EXPECT_EQ(CVekQryInfo::RQISendOQL("q", nullptr, &ignore, &engine, nullptr, TRUE), -220402);
    EXPECT_EQ(CVekQryInfo::RQISendOQL("q", "S", &ignore, nullptr, nullptr, TRUE), -220402);
    EXPECT_EQ(engine.RESendQueueLength(), 0);
    CVekQryInfo unnamed(nullptr, nullptr, RvDatum(), nullptr);
    EXPECT_STREQ(unnamed.RQISubject(), "");
    EXPECT_EQ(errors.take(),
              (std::vector<Report>{{-220552, "CVekQryInfo", 100, "CVekQryInfo::CVekQryInfo"}}));
}

TEST_F(Query, ASnoopHandsCopiesToItsPool) {
    CVekServPool pool(0, nullptr);
    CVekSnoop snoop(&pool);
    snoop.onData("S", nullptr, RvDatum(RVMSG_STRING, 7, std::string("update").c_str()), nullptr);
    const std::unique_ptr<CVekUpdWork> work(static_cast<CVekUpdWork*>(pool.RSPTakeWorkDetail()));
    ASSERT_NE(work, nullptr);
    EXPECT_EQ(work->RUWSnooper(), &snoop);
    EXPECT_STREQ(static_cast<const char*>(work->RUWDatum()->data()), "update");
}

TEST_F(Query, ASnoopWithoutAPoolDropsAndSaysSo) {
    const DebugLevel level(4);
    EXPECT_EQ(outputOf([] {
                  CVekSnoop snoop(nullptr);
                  snoop.onData(nullptr, nullptr, RvDatum(), nullptr);
              }),
              "CVekSnoop::CVekSnoop: WARNING! Initializing with a NULL CVekServPool\n"
              "CVekSnoop::onData: Snooped a packet on NULL\nCVekSnoop::RSProcessData\n"
              "CVekSnoop::RSProcessData: Updates ServPool is NULL!!!\n");
}

TEST_F(Query, ASnoopReportsAPoolThatRefuses) {
    struct Refusing : CVekServPool {
        Refusing() : CVekServPool(0, nullptr) {}
        int RSPAddWorkDetail(void* item) override {
            kept.reset(static_cast<CVekUpdWork*>(item));
            return -1;
        }
        std::unique_ptr<CVekUpdWork> kept;
    } pool;
    CVekSnoop snoop(&pool);
    snoop.RSProcessData("S", nullptr, RvDatum(), nullptr);
    EXPECT_EQ(errors.take(),
              (std::vector<Report>{{-220439, "CVekSnoop", 138, "CVekSnoop::onData"}}));
    EXPECT_NE(pool.kept, nullptr);  // not deleted by the snoop
}

TEST_F(Query, ASnoopKeepsItsFirstTransport) {
    CVekSnoop snoop(nullptr);
    snoop.RSTransport(nullptr);
    EXPECT_EQ(snoop.RSTransport(), nullptr);
    snoop.RSTransport(&engine);
    const CVekTransport* const first = snoop.RSTransport();
    snoop.RSTransport(&engine);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(snoop.RSTransport(), first);
}

TEST_F(Query, AClientSenderSendsOnceAndIsGone) {
    CVekClient client(0, "NET");
    char text[] = "abc";
    auto* const sender = new CVekClientSender(strdup("S"), text, &ignore);
    EXPECT_EQ(sender->m_sendDatum->size(), 3U);
    EXPECT_EQ(sender->m_sendDatum->type(), static_cast<rvmsg_Type>(RVMSG_STRING));
    auto* const empty = new CVekClientSender(strdup("S"), static_cast<RvDatum*>(nullptr), &ignore);
    ASSERT_EQ(client.RRNAddTimer(1, sender), 1);
    ASSERT_EQ(client.RRNAddTimer(2, empty), 1);
    std::vector<Report> reports;
    const std::string said = errorOutputOf([&] {
        EXPECT_TRUE(runUntil(client, [&] {
            for (const Report& report : errors.take()) reports.push_back(report);
            return reports.size() == 2;
        }));
    });
    EXPECT_EQ(said, "Rendezvous Error : failed to open RPC listener\n");
    EXPECT_EQ(reports, (std::vector<Report>{{-220545, "CVekClientSender", 114, ""},
                                            {-220552, "CVekClientSender", 120,
                                             "null datum in CVekClientSender::onTimer"}}));
}
