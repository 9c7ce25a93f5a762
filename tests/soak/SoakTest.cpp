// A process that does everything at once for a while: it beats, polls, queries and is queried,
// snoops, sets timers, and meets members of its group that come and go. Nothing of it, and nothing
// of its daemon, grows.
//
// Every now and then all of it rests until nothing is under way, and what is left is measured. The
// lowest value of the last quarter of the time must lie within what the second quarter has seen:
// a leak leaves something with every round, whatever the size of the rest.

#include <malloc.h>

#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekQryInfo.h"
#include "mom/engine/CVekSnoop.h"
#include "mom/engine/CVekUpdWork.h"
#include "mom/timed/CVekTimedWork.h"
#include "mom/timed/CVekTimedWorkMgr.h"
#include "mom/transport/CVekTransport.h"
#include "rv/session/rvSessionHooks.h"
#include "tests/mom/timed/Polls.h"
#include "tests/support/Daemon.h"
#include "tests/support/Nets.h"
#include "tests/support/Packets.h"
#include "tests/support/ProcessUsage.h"
#include "tests/support/Sanitizer.h"

using namespace kvx::test;

namespace {

constexpr int kQueriesAtOnce = 200;
constexpr int kMostRows = 150;  // more than one packet holds
constexpr int kInboxSenders = 4096;
constexpr std::size_t kLeastRounds = 16;
constexpr const char* kUpdates = "UPDATES";

const char* const kModelQuery = CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(SERV_MODEL);

std::chrono::seconds soakTime() {
    const char* const seconds = std::getenv("KVX_SOAK_SECONDS");
    return std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 10);
}

// Adds a received packet; the number of records once the last one is there, else -1.
int addPacket(CVekTransport& transport, const RvDatum& datum) {
    RvMsg message(const_cast<rvmsg_Msg>(datum.data()));
    EXPECT_EQ(transport.RTAddMessage(&message), 1);
    if (transport.RTDone() != TRUE) return -1;
    const auto count = static_cast<int>(recordsOf(transport).size());
    transport.RTPurge();
    return count;
}

// Sends so many records, in as many packets as they take.
template <class Destination>
void sendRows(CVekEngine& engine, Destination destination, int rows, EVekTransHdr version) {
    CVekTransport transport(&engine);
    for (int row = 0; row < rows; ++row) {
        CVekBaseRecord record;
        record.RRAddOrSetValue("row", new CVekAtom(row));
        transport.RTAddRecord(&record);
        transport.RTPreparePayloads(version);
    }
    transport.RTSetDestination(destination);
    transport.RTCreatePackets(version, true);
    EXPECT_EQ(transport.RTSendAll(false), 1);
}

// Asks again as soon as the answer is there.
class Asking : public RvDataCallback {
  public:
    Asking(CVekEngine& engine, int number) : m_engine(engine), m_random(number) {}

    // Goes on asking until `isResting`.
    void ask(const bool& isResting) {
        m_isResting = &isResting;
        isAsking = !isResting;
        if (!isAsking) return;
        m_rows = 1 + static_cast<int>(m_random() % kMostRows);
        CVekEngine* const throughItsQueue = m_random() % 2 == 0 ? &m_engine : nullptr;
        EXPECT_EQ(CVekQryInfo::RQISendOQL(std::to_string(m_rows).c_str(), kModelQuery, this,
                                          throughItsQueue, &m_engine, TRUE),
                  1);
    }
    void onData(const char*, RvSender*, const RvDatum& datum, RvListener* listener) override {
        const int rows = addPacket(m_transport, datum);
        if (rows < 0) return;
        EXPECT_EQ(rows, m_rows);
        ++answers;
        m_engine.RRNRemoveListener(listener->subject());
        ask(*m_isResting);
    }

    long long answers = 0;
    bool isAsking = false;

  private:
    CVekEngine& m_engine;
    std::minstd_rand m_random;
    CVekTransport m_transport{nullptr};
    int m_rows = 0;
    const bool* m_isResting = nullptr;
};

std::atomic<long long> updatesSeen = 0;

void applyUpdate(void* item, void*) {
    const std::unique_ptr<CVekUpdWork> work(static_cast<CVekUpdWork*>(item));
    CVekTransport transport(nullptr);
    EXPECT_EQ(addPacket(transport, *work->RUWDatum()), 1);
    ++updatesSeen;
}

// What is measured, and which part of it may come on top: the allocator takes and returns pages in
// large steps, and the names of the inboxes whose senders are kept grow by a digit now and then.
struct Measure {
    const char* name;
    double allowed;
};
constexpr std::array<Measure, 9> kMeasures = {{{"heap in use, bytes", 0.005},
                                               {"resident, bytes", 0.05},
                                               {"rvd resident, bytes", 0.05},
                                               {"descriptors", 0},
                                               {"rvd descriptors", 0},
                                               {"timers", 0},
                                               {"listeners", 0},
                                               {"senders", 0},
                                               {"send queue", 0}}};
using Sample = std::array<long long, kMeasures.size()>;

struct Soak : testing::Test {
    Soak() {
        engine.RESetMaxSendRate(1'000'000);
        engine.REStartHeartBeat("Model", "NET", &env);
        EXPECT_EQ(engine.RRNAddService(kModelQuery, &answering), 1);
        EXPECT_EQ(engine.RRNAddService(kUpdates, &snoop), 1);
        updates.RSPLaunchThreads(&applyUpdate);
        for (int i = 0; i < 10; ++i) {
            polls.push_back(std::make_unique<CountingPoll>(std::to_string(i), 1 + i % 5));
            polls.back()->onRun = [this] { sendRows(engine, kUpdates, 1, VEK_TRANS_V0); };
            timedWork.RTWMAddPoll(polls.back().get());
        }
        timedWork.RTWMDistributePolls();
        for (int i = 0; i < kQueriesAtOnce; ++i) {
            asking.push_back(std::make_unique<Asking>(engine, i + 1));
        }
    }

    ~Soak() override {
        rv_Close(visitor);
        updates.RSPStopThreads();
        while (void* item = updates.RSPTakeWorkDetail()) delete static_cast<CVekUpdWork*>(item);
    }

    // Turns the loop, with everything going on in it, until `length` has passed
    // and so many rounds are done; a sample of each.
    std::vector<Sample> soak(std::chrono::milliseconds length, std::size_t rounds) {
        std::vector<Sample> samples;
        samples.reserve(static_cast<std::size_t>(length.count() / 100 + 100));
        OnTimer beat([&](RvTimer* timer) {
            if (!resting) engine.m_heartbeat->onTimer(timer);
        });
        OnTimer change([&](RvTimer*) {
            if (!resting) changeSomething();
        });
        const auto begin = std::chrono::steady_clock::now();
        auto roundBegin = begin;
        const auto round = std::clamp<std::chrono::milliseconds>(
            length / 40, std::chrono::milliseconds(200), std::chrono::seconds(2));
        OnTimer tick([&](RvTimer*) {
            const auto now = std::chrono::steady_clock::now();
            if (!resting && now > roundBegin + round) rest();
            if (!resting || !isAtRest()) return;
            samples.push_back(sample());
            if (now > begin + length && samples.size() >= rounds) return engine.RRNStopLoop();
            goOn();
            roundBegin = now;
        });
        int status = 0;
        const auto repeat = [&](unsigned long interval, OnTimer& what) {
            return std::unique_ptr<RvTimer>(
                engine.RRNNewTimer(&status, interval, rv_TRUE, &what, &engine));
        };
        const auto beats = repeat(5, beat);
        const auto unrest = repeat(20, change);
        const auto ticks = repeat(10, tick);
        goOn();
        engine.REDoIt();
        return samples;
    }

    void rest() {
        resting = true;
        timedWork.RTWMSuspendTimedWork();
        if (visitor != nullptr) visitGroup();
    }
    void goOn() {
        resting = false;
        timedWork.RTWMResumeTimedWork();
        for (auto& one : asking) one->ask(resting);
    }
    bool isAtRest() {
        long long published = 0;
        for (const auto& poll : polls) {
            if (poll->RTWPollIsExecuting()) return false;
            published += poll->runs;
        }
        return published == updatesSeen && engine.RESendQueueLength() == 0 &&
               std::ranges::none_of(asking, [](const auto& one) { return one->isAsking; });
    }
    void changeSomething() {
        EXPECT_EQ(engine.RRNAddTimer(0, &bystander), 1);
        timedWork.RTWMAddRepeatPoller(polls[0].get());
        timedWork.RTWMChangePollFrequency(polls[1].get(), 2 + timersFired % 7);
        timedWork.RTWMDistributePolls();
        if (++changes % 25 == 0) visitGroup();
    }

    // Each time another member has just come, or gone.
    void visitGroup() {
        if (visitor != nullptr) {
            EXPECT_EQ(rv_Close(std::exchange(visitor, nullptr)), 0);
            return;
        }
        ASSERT_EQ(rv_Open(&visitor, "", "", daemon.text().c_str()), 0);
        rvft_MemberId id = nullptr;
        EXPECT_EQ(rvft_Join(
                      visitor, &id, engine.m_groupName.get(), 1, 1, 10, 0, 1000,
                      [](rv_Session, const char*, int, void*) {}, nullptr),
                  0);
    }

    // In the order of `kMeasures`.
    Sample sample() {
        const auto memory = [](long long bytes) { return kIsWatched ? 0 : bytes; };
        return {memory(static_cast<long long>(mallinfo2().uordblks)),
                memory(residentBytes(getpid())),
                memory(residentBytes(daemon.pid())),
                openDescriptors(getpid()),
                openDescriptors(daemon.pid()),
                engine.m_timers->RDLLength(),
                engine.m_listeners->RTLLength(),
                engine.m_senders->RTLLength(),
                engine.RESendQueueLength()};
    }
    long long answers() const {
        long long sum = 0;
        for (const auto& one : asking) sum += one->answers;
        return sum;
    }
    // The senders to inboxes, of which so many are kept, with names as long as those to come.
    void fillCaches() {
        const RvDatum datum(RVMSG_STRING, 2, "x");
        const std::string session = rv_SessionName(engine.m_session->handle());
        for (int i = 0; i <= kInboxSenders; ++i) {
            const std::string inbox = "_INBOX." + session + "." + std::to_string(900'000 + i);
            ASSERT_EQ(engine.RESend(inbox.c_str(), datum, FALSE), 1);
        }
    }

    Daemon daemon;
    Home home{daemon.text()};
    ErrorRecorder errors;
    CVekEnv env;
    CVekServPool updates{2, nullptr};
    CVekEngine engine{1, "soak", "NET", SERV_MODEL};
    OnData answering{
        [this](const char* subject, RvSender* replyTo, const RvDatum& datum, RvListener* listener) {
            int status = 0;
            CVekQryInfo query(subject, engine.RRNNewSender(&status, replyTo->subject(), nullptr),
                              datum, listener);
            const kvx::Text rows(query.RQIQuery());
            sendRows(engine, query.RQIReplyTo(), std::atoi(rows.get()), query.RQIVersion());
        }};
    CVekSnoop snoop{&updates};
    std::vector<std::unique_ptr<Asking>> asking;
    std::vector<std::unique_ptr<CountingPoll>> polls;
    CVekTimedWorkMgr timedWork{&engine, 2, 10, 4, nullptr, FALSE};
    OnTimer bystander{[this](RvTimer* timer) {
        ++timersFired;
        EXPECT_EQ(engine.RRNRemoveTimer(timer), 1);
    }};
    rv_Session visitor = nullptr;
    int timersFired = 0;
    int changes = 0;
    bool resting = false;
};

// The least and the most of a measure in a quarter of the samples.
std::pair<long long, long long> rangeOf(const std::vector<Sample>& samples, std::size_t quarter,
                                        std::size_t measure) {
    const std::size_t length = samples.size() / 4;
    const auto part = std::span(samples).subspan(quarter * length, length);
    const auto value = [measure](const Sample& sample) { return sample[measure]; };
    const auto [least, most] = std::ranges::minmax(part, {}, value);
    return {least[measure], most[measure]};
}

}  // namespace

TEST_F(Soak, NothingGrows) {
    const auto length = soakTime();
    fillCaches();
    soak(std::min<std::chrono::milliseconds>(length / 4, std::chrono::seconds(30)), kLeastRounds);
    const long long answered = answers();
    const std::vector<Sample> samples = soak(length, kLeastRounds);
    std::printf("%lld queries, %lld updates, %d timers in %lld s, %zu samples\n",
                answers() - answered, updatesSeen.load(), timersFired,
                static_cast<long long>(length.count()), samples.size());
    EXPECT_GT(answers(), answered + kQueriesAtOnce);
    for (std::size_t measure = 0; measure < kMeasures.size(); ++measure) {
        const auto [least, before] = rangeOf(samples, 1, measure);
        const auto [last, most] = rangeOf(samples, 3, measure);
        const auto& [name, allowed] = kMeasures[measure];
        std::printf("%-20s %lld..%lld  %lld..%lld\n", name, least, before, last, most);
        EXPECT_LE(static_cast<double>(last), static_cast<double>(before) * (1 + allowed)) << name;
    }
    EXPECT_EQ(errors.take(), Reports{});
}
