// Records: fields, the bytes that they become, and what must not be read as a record.

#include "foundation/CVekBaseRecord.h"

#include "tests/foundation/Owned.h"

namespace kvx::test {
namespace {

using Bytes = std::string;
using OwnedRecord = std::unique_ptr<CVekBaseRecord>;

const unsigned char* raw(const Bytes& bytes) {
    return reinterpret_cast<const unsigned char*>(bytes.data());
}

Bytes encoded(const CVekBaseRecord& record) {
    unsigned char* bytes = nullptr;
    int length = 0;
    EXPECT_EQ(record.ROMEncode(&bytes, &length), 1);
    const std::unique_ptr<unsigned char, FreeMemory> owned(bytes);
    return {reinterpret_cast<char*>(bytes), static_cast<std::size_t>(length)};
}

OwnedRecord decoded(const Bytes& bytes) {
    return OwnedRecord(CVekBaseRecord::ROMDecode(raw(bytes), static_cast<int>(bytes.size())));
}

// "name=kind:value " for each field, or "no record".
std::string described(const CVekBaseRecord* record) {
    if (record == nullptr) return "no record";
    std::ostringstream out;
    for (int i = 0; i < record->RRSize(); ++i) {
        const CVekAtom* value = record->RRValueAt(i);
        out << record->RRNameAt(i) << '=' << value->RAType() << ':' << take(value->RAStrRep())
            << ' ';
    }
    return out.str();
}

CVekBaseRecord sample() {
    CVekBaseRecord record;
    record.RRAddOrSetValue("t", new CVekAtom("hi"));
    record.RRAddOrSetValue("n", new CVekAtom(5));
    record.RRAddOrSetValue("l", new CVekAtom(5LL));
    record.RRAddOrSetValue("b", new CVekAtom(raw(Bytes("\0\x01", 2)), 2));
    return record;
}

// The encoding of `sample`, byte by byte: what programs in other languages rely on.
const Bytes kSampleBytes(
    "\x94"
    "\x92\xa1t\xa2hi"
    "\x92\xa1n\x05"
    "\x92\xa1l\xd3\0\0\0\0\0\0\0\x05"
    "\x92\xa1"
    "b\xc4\x02\0\x01",
    1 + 6 + 4 + 12 + 7);

// A record of one field named "a" with the value's bytes as given.
Bytes withValue(const Bytes& value) {
    return "\x91\x92\xa1" + Bytes("a") + value;
}

TEST(Record, ReplacesValuesAtTheirPlaceAndCopiesDeeply) {
    CVekBaseRecord record = sample();
    auto* value = new CVekAtom("new");
    EXPECT_EQ(record.RRAddOrSetValue("n", value), 1);
    EXPECT_EQ(record.RRAddOrSetValue("n", value), 1);  // the same pointer stays alive
    EXPECT_EQ(described(&record), "t=1:hi n=1:new l=3:5 b=5:0001 ");
    EXPECT_EQ(record.RRGetValue("n"), value);
    EXPECT_EQ(record.RRGetValue("N"), nullptr);
    EXPECT_EQ(record.RRNameAt(4), nullptr);
    EXPECT_EQ(record.RRValueAt(-1), nullptr);
    const OwnedRecord copy(static_cast<CVekBaseRecord*>(record.RLTargetDeepCopy(&record)));
    record.RRAddOrSetValue("t", new CVekAtom("changed"));
    EXPECT_EQ(described(copy.get()), "t=1:hi n=1:new l=3:5 b=5:0001 ");
}

TEST(Record, RefusesMissingArgumentsAndKeepsNothing) {
    CVekBaseRecord record;
    CVekAtom value(1);  // would be deleted if the record kept it
    EXPECT_EQ(record.RRAddOrSetValue(nullptr, &value), -220402);
    EXPECT_EQ(record.RRAddOrSetValue("a", nullptr), -220402);
    EXPECT_EQ(record.RRSize(), 0);
    EXPECT_EQ(record.RRGetValue(nullptr), nullptr);
    EXPECT_EQ(record.ROMEncode(nullptr, nullptr), -220402);
}

TEST(Record, FindsFieldsInLargeRecordsToo) {
    CVekBaseRecord record;
    for (int i = 0; i < 5000; ++i) {
        record.RRAddOrSetValue(("field" + std::to_string(i)).c_str(), new CVekAtom(i));
    }
    record.RRAddOrSetValue("field17", new CVekAtom(-1));
    const OwnedRecord read = decoded(encoded(record));
    ASSERT_NE(read, nullptr);
    ASSERT_EQ(read->RRSize(), 5000);
    EXPECT_EQ(read->RRGetValue("field17")->RAInt(), -1);
    EXPECT_EQ(read->RRGetValue("field4999")->RAInt(), 4999);
    EXPECT_STREQ(read->RRNameAt(4999), "field4999");
}

TEST(RecordEncoding, IsAnArrayOfPairs) {
    EXPECT_EQ(encoded(sample()), kSampleBytes);
    EXPECT_EQ(encoded(CVekBaseRecord()), "\x90");
    EXPECT_EQ(described(decoded(kSampleBytes).get()), "t=1:hi n=2:5 l=3:5 b=5:0001 ");
    EXPECT_EQ(described(decoded("\x90").get()), "");
    // A repeated name: the last value, at the first place.
    const Bytes twice("\x93\x92\xa1x\x01\x92\xa1y\x02\x92\xa1x\x03");
    EXPECT_EQ(described(decoded(twice).get()), "x=2:3 y=2:2 ");
}

TEST(RecordEncoding, KeepsIntegersTheirWidthsAndTextsOfEveryLengthForm) {
    for (const long long value : {0LL, -1LL, -32LL, -33LL, 127LL, 128LL, 255LL, 256LL, 65535LL,
                                  65536LL, -129LL, -32769LL, 2147483647LL, -2147483648LL}) {
        CVekBaseRecord record;
        record.RRAddOrSetValue("narrow", new CVekAtom(static_cast<int>(value)));
        record.RRAddOrSetValue("wide", new CVekAtom(value << 31));
        EXPECT_EQ(described(decoded(encoded(record)).get()), described(&record));
    }
    for (const std::size_t length : {0U, 31U, 32U, 255U, 256U, 65535U, 65536U}) {
        const Bytes content(length, 'x');
        CVekBaseRecord record;
        record.RRAddOrSetValue(content.c_str(), new CVekAtom(content.c_str()));
        record.RRAddOrSetValue("b", new CVekAtom(raw(content), static_cast<int>(length)));
        EXPECT_EQ(described(decoded(encoded(record)).get()), described(&record));
    }
}

TEST(RecordEncoding, RefusesWhatIsNoRecord) {
    EXPECT_EQ(CVekBaseRecord::ROMDecode(nullptr, 3), nullptr);
    EXPECT_EQ(CVekBaseRecord::ROMDecode(raw(kSampleBytes), -1), nullptr);
    const std::vector<std::pair<const char*, Bytes>> refused = {
        {"nothing", ""},
        {"a left-over byte", kSampleBytes + "\xc0"},
        {"no array", "\x81\xa1x\x01"},
        {"no pair", "\x91\x93\xa1x\x01\x02"},
        {"a number as name", "\x91\x92\x01\x02"},
        {"a zero byte in a name", Bytes("\x91\x92\xa1\0\x02", 5)},
        {"a zero byte in a text", withValue(Bytes("\xa1\0", 2))},
        {"more fields than bytes", Bytes("\xdd\xff\xff\xff\xff\x92\xa1x\x01", 9)},
        {"a text beyond the end", withValue(Bytes("\xdb\xff\xff\xff\xff", 5))},
        {"bytes beyond the end", withValue(Bytes("\xc6\x7f\xff\xff\xff", 5))},
        {"nil", withValue("\xc0")},
        {"a truth value", withValue("\xc3")},
        {"a float", withValue(Bytes("\xca\0\0\0\0", 5))},
        {"a nested array", withValue("\x90")},
        {"a nested map", withValue("\x80")},
        {"an extension", withValue("\xd4\x01\x01")},
        {"an unsigned integer of 64 bits", withValue(Bytes("\xcf\0\0\0\0\0\0\0\x05", 9))},
        {"an integer above 32 bits", withValue(Bytes("\xce\x80\0\0\0", 5))}};
    for (const auto& [what, bytes] : refused) EXPECT_EQ(decoded(bytes), nullptr) << what;
    EXPECT_EQ(decoded(withValue(Bytes(40'000'000, '\x90'))), nullptr) << "deep nesting";
}

TEST(RecordEncoding, BoundsTheNumberOfFields) {
    const auto fields = [](unsigned count) {
        Bytes bytes("\xdd");
        for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(count >> shift);
        for (unsigned i = 0; i < count; ++i) bytes += Bytes("\x92\xa1x\x01");
        return bytes;
    };
    EXPECT_NE(decoded(fields(65'535)), nullptr);
    EXPECT_EQ(decoded(fields(65'536)), nullptr);
}

TEST(RecordEncoding, SurvivesEveryTruncationAndEveryChangedByte) {
    for (std::size_t length = 0; length < kSampleBytes.size(); ++length) {
        EXPECT_EQ(decoded(kSampleBytes.substr(0, length)), nullptr) << length;
    }
    for (std::size_t at = 0; at < kSampleBytes.size(); ++at) {
        for (int value = 0; value < 256; ++value) {
            Bytes changed = kSampleBytes;
            changed[at] = static_cast<char>(value);
            const OwnedRecord record = decoded(changed);
            if (record == nullptr) continue;
            // What is read as a record is one: it comes through a second time unchanged.
            EXPECT_EQ(described(decoded(encoded(*record)).get()), described(record.get()));
        }
    }
}

}  // namespace
}  // namespace kvx::test
