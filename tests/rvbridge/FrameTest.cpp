#include "rvbridge/Frame.h"

#include "rv/wire/ControlMessage.h"
#include "rvbridge/ControlMessage.h"
#include "rvbridge/EngineSubject.h"

namespace kvx::bridge {
namespace {

using Octets = std::vector<std::uint8_t>;

Subject subject(const char* text) {
    return *Subject::fromText(text);
}
Octets copyOf(Bytes bytes) {
    return {bytes.begin(), bytes.end()};
}

TEST(EngineSubjects, MapReversibly) {
    const EngineSubjects space("7500", "");
    const std::vector<std::array<const char*, 3>> kCases = {
        {"NEWS.UK", "kvx.7500.=.s.NEWS.UK", nullptr},
        {"NEWS.>", "kvx.7500.=.s.NEWS.>", "kvx.7500.=.w.NEWS.=3E"},
        {"*.a b", "kvx.7500.=.s.*.a=20b", "kvx.7500.=.w.=2A.a=20b"},
        {"A.>.=.\xC3\xA4*", "kvx.7500.=.s.A.=3E.=3D.=C3=A4=2A", nullptr},
    };
    for (const auto& [text, subscription, publication] : kCases) {
        SCOPED_TRACE(text);
        const Subject there = subject(text);
        EXPECT_EQ(space.subscription(there), subscription);
        EXPECT_EQ(space.publication(there), publication != nullptr ? publication : subscription);
        for (const std::string& engine : {space.subscription(there), space.publication(there)}) {
            ASSERT_TRUE(space.subjectOf(engine)) << engine;
            EXPECT_EQ(space.subjectOf(engine)->view().text(), text);
        }
    }
    EXPECT_EQ(space.controlTo("a.b"), "kvx.7500.=.c.to.a=2Eb");
    EXPECT_EQ(space.directTo("a.b"), "kvx.7500.=.d.a=2Eb.>");
    const std::string direct = space.direct("a.b", subject("NEWS.a b"));
    EXPECT_EQ(direct, "kvx.7500.=.d.a=2Eb.NEWS.a=20b");
    EXPECT_EQ(space.subjectOf(direct)->view().text(), "NEWS.a b");
}

TEST(EngineSubjects, RefuseWhatTheyDoNotWrite) {
    const EngineSubjects space("7500", "");
    std::istringstream ends(
        "s s. s.A..B s.=41 s.=2e s.=2E s.=00 s.= s.=4 s.=2A s.A.=3E s.>.A w.A w.* d d.h d.h. "
        "d.h.=2A c.all");
    for (std::string end; ends >> end;) EXPECT_FALSE(space.subjectOf("kvx.7500.=." + end)) << end;
    for (const char* engine : {"", "kvx.7501.=.s.A", "kvx.7500.=.s.a b"}) {
        EXPECT_FALSE(space.subjectOf(engine)) << engine;
    }
    const std::string tooLong = "kvx.7500.=.s." + std::string(251, 'a');
    EXPECT_FALSE(space.subjectOf(tooLong));
}

TEST(Frames, CollectWhatFollowsAndCutWhatIsLarge) {
    FrameWriter writer("h", 7, FrameWriter::kLeastLimit);
    const Octets small(1'100, 's');
    ASSERT_TRUE(writer.append({1, 5, 1}, small));
    EXPECT_FALSE(writer.append({3, 5, 2}, small)) << "another subject's message is between";
    ASSERT_TRUE(writer.append({2, 5, 2}, Octets{}));
    ASSERT_TRUE(writer.append({3, 5, 3}, small));
    ASSERT_TRUE(writer.append({4, 5, 4}, small));
    EXPECT_FALSE(writer.append({5, 5, 5}, small)) << "full";
    const Octets bytes = copyOf(writer.open());
    EXPECT_LE(bytes.size(), writer.limit());
    const auto frame = readFrame(bytes);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->host, "h");
    EXPECT_EQ(frame->first.sequence, 1U);
    FrameMessages messages(*frame);
    Bytes message;
    std::vector<std::size_t> sizes;
    while (messages.next(message)) sizes.push_back(message.size());
    EXPECT_EQ(sizes, (std::vector<std::size_t>{1'100, 0, 1'100, 1'100}));
    writer.clear();

    const Octets large(10'000, 'l');
    EXPECT_FALSE(writer.fitsWhole(large.size()));
    std::size_t at = 0;
    writer.parts({5, 5, 5}, large, [&](Bytes part) {
        ASSERT_LE(part.size(), writer.limit());
        const auto read = readFrame(part);
        ASSERT_TRUE(read);
        EXPECT_EQ(read->offset, at);
        at += read->body.size();
    });
    EXPECT_EQ(at, large.size());
}

TEST(Frames, HoldRunsOnSeveralSubjects) {
    FrameWriter writer("h", 7, FrameWriter::kLeastLimit);
    writer.setKnowledge(77);
    ASSERT_TRUE(writer.append({1, 5, 1}, Octets{1}));
    EXPECT_FALSE(writer.appendRun(subject("B"), {3, 6, 1}, {})) << "a message is between";
    ASSERT_TRUE(writer.appendRun(subject("B"), {2, 6, 8}, Octets{2}));
    ASSERT_TRUE(writer.append({3, 6, 9}, Octets{3}));
    EXPECT_FALSE(writer.appendRun(subject("A"), {4, 5, 2}, Octets(4'000, 'x'))) << "full";
    ASSERT_TRUE(writer.appendRun(subject("A"), {4, 5, 2}, Octets{4}));
    const Octets bytes = copyOf(writer.open());
    auto frame = readFrame(bytes);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->knowledge, 77U);
    std::ostringstream seen;
    const Subject first = subject("A");
    SubjectView on = first;
    do {
        seen << on.text() << ' ' << frame->first.sequence << '/' << frame->first.keyEpoch << '/'
             << frame->first.number << ':';
        FrameMessages messages(*frame);
        for (Bytes message; messages.next(message);) seen << ' ' << int{message[0]};
        seen << "; ";
    } while (nextRun(*frame, on));
    EXPECT_EQ(seen.str(), "A 1/5/1: 1; B 2/6/8: 2 3; A 4/5/2: 4; ");
}

TEST(Frames, AreReadWholeOrNotAtAll) {
    FrameWriter writer("host", 7);
    ASSERT_TRUE(writer.append({1, 1, 1}, Octets{1, 2, 3}));
    ASSERT_TRUE(writer.append({2, 1, 2}, Octets{4}));
    Octets bytes = copyOf(writer.open());
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_FALSE(readFrame(Bytes(bytes).first(size))) << size;
    }
    ASSERT_TRUE(writer.appendRun(subject("B"), {3, 6, 1}, Octets{5}));
    const Octets runs = copyOf(writer.open());
    for (std::size_t size = 0; size < runs.size(); ++size) {
        EXPECT_FALSE(readFrame(Bytes(runs).first(size))) << size;
    }
    bytes.push_back(0);
    EXPECT_FALSE(readFrame(bytes)) << "a byte left over";
}

// The blocks of hex digits in docs/bridge.md by what stands behind "hex".
Octets documented(const std::string& name) {
    std::ifstream in(KVX_SOURCE_DIR "/docs/bridge.md");
    Octets bytes;
    std::string line;
    while (std::getline(in, line) && line != "```hex " + name) {
    }
    while (std::getline(in, line) && line != "```") {
        std::istringstream words(line.substr(0, line.find('#')));
        for (std::string word; words >> word;) {
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
        }
    }
    return bytes;
}

TEST(BridgePage, ShowsFramesAsTheyAreEncoded) {
    FrameWriter writer("alpha", 0x0102030405060708);
    const Subject news = subject("NEWS.UK");
    const auto data = wire::buildData(
        {static_cast<const std::uint8_t*>(news.view().data()), news.view().length()}, nullptr, 0,
        {RVMSG_STRING, 0, "hi"});
    ASSERT_EQ(data.code, 0);
    ASSERT_TRUE(writer.append({9, 2, 4}, data.message.view()));
    EXPECT_EQ(documented("data"), copyOf(writer.open()));
    Octets first = documented("data");
    first.resize(first.size() + sizeof(std::uint64_t));
    writer.clear();
    writer.setKnowledge(0x1122334455667788);
    ASSERT_TRUE(writer.append({9, 2, 4}, data.message.view()));
    ASSERT_TRUE(writer.appendRun(subject("A"), {10, 3, 1}, data.message.view()));
    const Octets runs = copyOf(writer.open());
    const Bytes second = Bytes(runs).subspan(first.size(), runs.size() - first.size() - 50);
    EXPECT_EQ(documented("runs"), copyOf(second));
    writer.setKnowledge(std::nullopt);
    writer.clear();
    EXPECT_EQ(documented("mark"), copyOf(writer.mark({10, 2, 5}, LossCause::EngineGone)));
    const std::string_view subjectBytes(static_cast<const char*>(news.view().data()),
                                        news.view().length());
    const auto change = ControlPayload(ControlMessage::kChange)
                            .u64(3)
                            .u8(ControlMessage::kAdd)
                            .raw(subjectBytes)
                            .take();
    EXPECT_EQ(documented("change"), copyOf(writer.control(change, {9, 2, 5})));
    EXPECT_EQ(EngineSubjects("7500", "").publication(news), "kvx.7500.=.s.NEWS.UK");
}

}  // namespace
}  // namespace kvx::bridge
