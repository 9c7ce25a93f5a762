// Query records, snoops and the client's one-shot sender, without a bus.

#include "mom/engine/CVekClient.h"
#include "mom/engine/CVekClientSender.h"
#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekQryInfo.h"
#include "mom/engine/CVekSnoop.h"
#include "mom/engine/CVekUpdWork.h"
#include "tests/support/Nets.h"

using namespace kvx::test;

namespace {

struct Query : NoDaemon {
    std::string textOf(CVekQryInfo& query) {
        const kvx::Text text(query.RQIQuery());
        return text ? text.get() : "(null)";
    }

    CVekEngine engine{1, "grp", "NET", SERV_UNKNOWN};
};

}  // namespace

TEST_F(Query, TravelsAsAMessageOfTextAndVersionThatItOutlives) {
    EXPECT_EQ(CVekQryInfo::RQISendOQL("select * from x", "S", &ignoreData, &engine, nullptr, TRUE),
              1);
    const std::unique_ptr<CVekSendQueueItem> item(engine.RENextSendItem());
    ASSERT_NE(item, nullptr);
    EXPECT_STREQ(item->m_subject, "S.NET");
    CVekQryInfo query("S.NET", nullptr, *item->m_datum, nullptr);
    EXPECT_STREQ(query.RQISubject(), "S.NET");
    EXPECT_EQ(textOf(query), "select * from x");
    EXPECT_EQ(query.RQIVersion(), VEK_TRANS_V1);
    EXPECT_NE(query.RQIDatum(), item->m_datum);
    RvMsg message;
    message.append("QryInfoOQLStr", "select * from y");
    auto plain = std::make_unique<RvDatum>(message);  // a message, but not as an RvMsg
    CVekQryInfo copying("S", nullptr, *plain, nullptr);
    EXPECT_NE(copying.RQIDatum()->data(), plain->data());
    plain.reset();
    EXPECT_EQ(textOf(copying), "select * from y");
}

TEST_F(Query, MayBeAStringButNothingElseAndNeedsSubjectAndNetwork) {
    CVekQryInfo query("S", nullptr, RvDatum(RVMSG_STRING, 4, "abc"), nullptr);
    EXPECT_EQ(textOf(query), "abc");
    EXPECT_EQ(query.RQIVersion(), VEK_TRANS_V0);
    const std::int32_t number = 5;
    query.RQIReplaceDatum(new RvDatum(RVMSG_INT, 4, &number));
    EXPECT_EQ(textOf(query), "(null)");
    const Report unexpected{-220439, "CVekQryInfo", 265,
                            "CVekQryInfo::RQIQuery Unexpected message type"};
    EXPECT_EQ(errors.take(), Reports{unexpected});
    query.RQIReplaceDatum(new RvMsg(0UL));
    EXPECT_EQ(textOf(query), "");
    EXPECT_EQ(query.RQIVersion(), VEK_TRANS_V0);
    query.RQIReplaceDatum(nullptr);
    EXPECT_EQ(textOf(query), "(null)");
    EXPECT_EQ(errors.take(), Reports{unexpected});

    EXPECT_EQ(CVekQryInfo::RQISendOQL(nullptr, "S", &ignoreData, &engine, nullptr, TRUE), -220402);
    EXPECT_EQ(CVekQryInfo::RQISendOQL("q", nullptr, &ignoreData, &engine, nullptr, TRUE), -220402);
    EXPECT_EQ(CVekQryInfo::RQISendOQL("q", "S", &ignoreData, nullptr, nullptr, TRUE), -220402);
    EXPECT_EQ(engine.RESendQueueLength(), 0);
    CVekQryInfo unnamed(nullptr, nullptr, RvDatum(), nullptr);
    EXPECT_STREQ(unnamed.RQISubject(), "");
    EXPECT_EQ(errors.take(), (Reports{{-220552, "CVekQryInfo", 100, "CVekQryInfo::CVekQryInfo"}}));
}

TEST_F(Query, ASnoopHandsCopiesToItsPoolAndKeepsItsFirstTransport) {
    struct Pool : CVekServPool {
        Pool() : CVekServPool(0, nullptr) {}
        int RSPAddWorkDetail(void* item) override {
            work.reset(static_cast<CVekUpdWork*>(item));
            return result;
        }
        std::unique_ptr<CVekUpdWork> work;
        int result = 1;
    } pool;
    CVekSnoop snoop(&pool);
    snoop.onData("S", nullptr, RvDatum(RVMSG_STRING, 7, std::string("update").c_str()), nullptr);
    ASSERT_NE(pool.work, nullptr);
    EXPECT_EQ(pool.work->RUWSnooper(), &snoop);
    EXPECT_STREQ(static_cast<const char*>(pool.work->RUWDatum()->data()), "update");
    pool.result = -1;  // what it refuses is not the snoop's to delete
    snoop.RSProcessData("S", nullptr, RvDatum(), nullptr);
    EXPECT_EQ(errors.take(), (Reports{{-220439, "CVekSnoop", 138, "CVekSnoop::onData"}}));

    snoop.RSTransport(nullptr);
    EXPECT_EQ(snoop.RSTransport(), nullptr);
    snoop.RSTransport(&engine);
    const CVekTransport* const first = snoop.RSTransport();
    snoop.RSTransport(&engine);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(snoop.RSTransport(), first);
}

TEST_F(Query, ASnoopWithoutAPoolDropsAndSaysSo) {
    const DebugLevel level(4);
    EXPECT_EQ(outputOf([] { CVekSnoop(nullptr).onData(nullptr, nullptr, RvDatum(), nullptr); }),
              "CVekSnoop::CVekSnoop: WARNING! Initializing with a NULL CVekServPool\n"
              "CVekSnoop::onData: Snooped a packet on NULL\nCVekSnoop::RSProcessData\n"
              "CVekSnoop::RSProcessData: Updates ServPool is NULL!!!\n");
}

TEST_F(Query, AClientSenderSendsOnceAndIsGone) {
    CVekClient client(0, "NET");
    char text[] = "abc";
    auto* const sender = new CVekClientSender(strdup("S"), text, &ignoreData);
    EXPECT_EQ(sender->m_sendDatum->size(), 3U);
    EXPECT_EQ(sender->m_sendDatum->type(), static_cast<rvmsg_Type>(RVMSG_STRING));
    auto* const empty =
        new CVekClientSender(strdup("S"), static_cast<RvDatum*>(nullptr), &ignoreData);
    ASSERT_EQ(client.RRNAddTimer(1, sender), 1);
    ASSERT_EQ(client.RRNAddTimer(2, empty), 1);
    Reports reports;
    const std::string said = errorOutputOf([&] {
        EXPECT_TRUE(runUntil(client, [&] {
            for (const Report& report : errors.take()) reports.push_back(report);
            return reports.size() == 2;
        }));
    });
    EXPECT_EQ(said, "Rendezvous Error : failed to open RPC listener\n");
    EXPECT_EQ(
        reports,
        (Reports{{-220545, "CVekClientSender", 114, ""},
                 {-220552, "CVekClientSender", 120, "null datum in CVekClientSender::onTimer"}}));
}
