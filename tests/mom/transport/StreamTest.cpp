// Compression streams: what goes in comes out, whatever the buffers, and errors are reported once.

#include <zlib.h>

#include "mom/transport/CVekDeflater.h"
#include "mom/transport/CVekInflater.h"
#include "tests/support/ErrorRecorder.h"

namespace kvx::test {
namespace {

std::string noise(std::size_t size) {
    std::mt19937 random(1);
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

void add(CVekDeflater& deflater, const std::string& text) {
    deflater.RDAddChunk(text.data(), static_cast<int>(text.size()));
}

std::string resultOf(CVekDeflater& deflater) {
    return {static_cast<const char*>(deflater.RDCompressedData()),
            static_cast<std::size_t>(deflater.RDCompressedLength())};
}

std::string deflated(const std::string& text, int initialSize, int level = -1) {
    CVekDeflater deflater(initialSize, level);
    add(deflater, text.substr(0, text.size() / 3));
    add(deflater, text.substr(text.size() / 3));
    deflater.RDFinishCompression();
    EXPECT_EQ(deflater.RDUnCompressedLength(), static_cast<int>(text.size()));
    return resultOf(deflater);
}

std::string inflatedByZlib(const std::string& stream, std::size_t size) {
    std::string out(size + 1, '\0');
    uLongf length = out.size();
    EXPECT_EQ(uncompress(reinterpret_cast<Bytef*>(out.data()), &length,
                         reinterpret_cast<const Bytef*>(stream.data()), stream.size()),
              Z_OK);
    out.resize(length);
    return out;
}

Report deflaterReport(int code, const std::string& text = "") {
    return {code, "CVekDeflater", 0, text};
}

TEST(Deflater, MakesTheSameStreamWhateverTheInitialSize) {
    const std::string text = noise(10000) + std::string(10000, 'x');
    const std::string stream = deflated(text, 1 << 20);
    EXPECT_EQ(inflatedByZlib(stream, text.size()), text);
    EXPECT_EQ(inflatedByZlib(deflated("", 1024), 0), "");
    for (const int size : {0, 1, 1004, 1024, static_cast<int>(stream.size())}) {
        EXPECT_EQ(deflated(text, size), stream) << size;
    }
    EXPECT_EQ(deflated(text, 1024, 10), stream);
    EXPECT_EQ(deflated(text, 1024, -7), stream);
    EXPECT_NE(deflated(text, 1024, 0), stream);
    // What stands in its own buffer.
    CVekDeflater again(1, 0);
    add(again, std::string(70000, 'x'));
    const auto length = static_cast<std::size_t>(again.RDCompressedLength());
    const std::string held(static_cast<const char*>(again.RDCompressedData()), length);
    again.RDAddChunk(again.RDCompressedData(), again.RDCompressedLength());
    again.RDFinishCompression();
    EXPECT_EQ(inflatedByZlib(resultOf(again), 70000 + length), std::string(70000, 'x') + held);
}

TEST(Streams, EndOnceWhenTheyWereAssigned) {
    ErrorRecorder errors;
    const std::string stream = deflated("text", 1024);
    const auto size = static_cast<int>(stream.size());
    {
        CVekInflater source(stream.data(), size);
        CVekInflater copy("", 0);
        copy = source;
        CVekDeflater other;
        CVekDeflater sharing;
        sharing = other;
        other.RDFinishCompression();
        EXPECT_EQ(sharing.RDCompressedData(), other.RDCompressedData());
    }
    EXPECT_TRUE(errors.take().empty());
}

TEST(Deflater, GivesItsBufferAwayOnceAndReportsEachMisuseOnce) {
    ErrorRecorder errors;
    {
        CVekDeflater deflater;
        add(deflater, "abc");
        deflater.RDFinishCompression();
        std::free(deflater.RDTakeCompressedData());
        EXPECT_EQ(deflater.RDCompressedData(), nullptr);
        EXPECT_EQ(deflater.RDUnCompressedLength(), 3);
        add(deflater, "more");
        deflater.RDFinishCompression();
        EXPECT_EQ(errors.take(), (std::vector{deflaterReport(-220402), deflaterReport(-220402)}));

        CVekDeflater negative(-1);
        add(negative, "abc");
        EXPECT_EQ(errors.take(), (std::vector{deflaterReport(-220553), deflaterReport(-220402)}));
    }
    EXPECT_TRUE(errors.take().empty());
    CVekDeflater finished;
    finished.RDAddChunk(nullptr, 5);
    finished.RDAddChunk("abc", -1);
    EXPECT_EQ(errors.take(), (std::vector{deflaterReport(-220552), deflaterReport(-220552)}));
    finished.RDFinishCompression();
    add(finished, "late");
    { const CVekDeflater unused; }
    {
        CVekDeflater unfinished;
        add(unfinished, "abc");
    }
    const auto late = errors.take();
    ASSERT_EQ(late.size(), 2U) << "what comes after the end, and what never came to it";
    for (const Report& report : late) EXPECT_EQ(report.code, -220440);
}

TEST(Deflater, TracesWhatItSavedAtLevelFour) {
    const DebugLevel level(4);
    const std::string trace = outputOf([] {
        CVekDeflater deflater(1024, 0);
        add(deflater, std::string(3000, 'x'));
        deflater.RDFinishCompression();
    });
    EXPECT_EQ(trace, "Deflated 3000 bytes to 3011 bytes (-0.366667%)\n");
    EXPECT_NE(outputOf([] { const CVekDeflater unused; }).find("nan%)\n"), std::string::npos);
}

TEST(Inflater, GoesOnWhereTheRoomEndedAndReportsAStreamThatIsNone) {
    const std::string text = noise(5000);
    const std::string stream = deflated(text, 1024);
    ErrorRecorder errors;
    CVekInflater inflater(stream.data(), static_cast<int>(stream.size()));
    std::string out(5000, '\0');
    inflater.RIInflateChunk(out.data(), 3000);
    EXPECT_EQ(inflater.RIIsDone(), FALSE);
    EXPECT_EQ(inflater.RIInflatedLength(), 3000);
    inflater.RIInflateChunk(out.data() + 3000, 2000);
    EXPECT_EQ(inflater.RIIsDone(), TRUE);
    EXPECT_EQ(out, text);
    EXPECT_TRUE(errors.take().empty());
    CVekInflater none("no zlib stream", 14);
    none.RIInflateChunk(out.data(), 16);
    EXPECT_EQ(none.RIIsDone(), FALSE);
    EXPECT_EQ(errors.take(),
              std::vector(1, Report{-220440, "CVekInflater", 0, "incorrect header check"}));
}

}  // namespace
}  // namespace kvx::test
