// An answer decoded on several threads is the answer.

#include "tools/kvx/AnswerDecoder.h"

#include <gtest/gtest.h>

namespace kvx::tool {
namespace {

// Every hundredth of the records is none.
void addRecords(CVekTransport& answer, int count) {
    for (int i = 0; i < count; ++i) {
        const unsigned char garbage[] = {0xc1, 0x00};
        auto* noRecord = new CVekAtom(garbage, sizeof garbage);
        CVekBaseRecord record;
        record.RRAddOrSetValue("n", new CVekAtom(i));
        if (i % 100 == 99) {
            EXPECT_EQ(answer.RTTakeROMP(&noRecord), 1);
        } else {
            delete noRecord;
            EXPECT_EQ(answer.RTAddRecord(&record), 1);
        }
    }
}

std::vector<int> numbersOf(const Decoded& decoded) {
    std::vector<int> numbers;
    for (const auto& record : decoded.records) {
        numbers.push_back(record->RRGetValue("n")->RAInt());
    }
    return numbers;
}

TEST(AnswerDecoder, KeepsOrderCountAndStatusOnAnyNumberOfThreads) {
    for (const int count : {0, 1, 105, 3300, 8001}) {
        std::vector<int> expected;
        for (int i = 0; i < count; ++i) {
            if (i % 100 != 99) expected.push_back(i);
        }
        for (const unsigned threads : {0U, 1U, 2U, 3U}) {
            CVekTransport answer(nullptr);
            addRecords(answer, count);
            answer.RTSetError(STORE_NO_INDEX);
            answer.RTCreatePackets(VEK_TRANS_V1, true);
            answer.RTSetError(STORE_COMPLETE);
            const Decoded decoded = decodeAnswer(answer, threads);
            EXPECT_EQ(numbersOf(decoded), expected) << count << " on " << threads;
            EXPECT_EQ(decoded.bad, static_cast<std::size_t>(count / 100));
            EXPECT_EQ(answer.RTError(), count == 0 ? STORE_COMPLETE : STORE_NO_INDEX);
        }
    }
}

}  // namespace
}  // namespace kvx::tool
