// What is left behind when memory runs out in the middle of an operation: everything as before, and
// a result that says so.

#include "foundation/foundation.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/FailingNew.h"

namespace {

using kvx::test::newsBeforeFailure;

// Repeats `work` with its first allocation failing, then its second and so on until it succeeds.
// Every result before that is "out of memory", and `check` is called after each.
template <class Work, class Check>
void runOutOfMemory(const char* what, Work work, Check check) {
    for (int failing = 0;; ++failing) {
        ASSERT_LT(failing, 100) << what;
        newsBeforeFailure = failing;
        const int result = work();
        newsBeforeFailure = -1;
        if (result == 1) break;
        EXPECT_EQ(result, -220553) << what;
        check();
    }
}

}  // namespace

TEST(OutOfMemory, LeavesARecordAsItWas) {
    CVekBaseRecord record;
    for (int field = 0; field < 40; ++field) {
        const std::string name = "a name of more than a few bytes " + std::to_string(field);
        auto value = std::make_unique<CVekAtom>(field);
        runOutOfMemory(
            name.c_str(), [&] { return record.RRAddOrSetValue(name.c_str(), value.get()); },
            [&] {
                EXPECT_EQ(record.RRSize(), field);
                EXPECT_EQ(record.RRGetValue(name.c_str()), nullptr);
                EXPECT_EQ(record.RRGetValue("a name of more than a few bytes 0") == nullptr,
                          field == 0);
                unsigned char* bytes = nullptr;
                int length = 0;
                EXPECT_EQ(record.ROMEncode(&bytes, &length), 1);
                std::free(bytes);
            });
        value.release();
    }
}

TEST(OutOfMemory, LeavesContainersAsTheyWere) {
    int value = 0;
    CVekStack stack;
    CVekHashStore store;
    CVekHashList hash;
    CVekTreeList tree(TRUE);
    CVekAtomVector vector;
    CVekServPool pool(0, nullptr);
    auto holder = std::make_unique<CVekPointer>(&value);
    auto atom = std::make_unique<CVekAtom>(1);
    const auto expectKept = [](const char* what, auto work, auto state) {
        runOutOfMemory(what, work, [&, before = state()] { EXPECT_EQ(state(), before) << what; });
    };
    const auto depth = [&] { return stack.RSLength(); };
    for (int i = 0; i < 100; ++i) {  // across the growth of every one
        expectKept(
            "push", [&] { return stack.RSPush(&value); }, depth);
        expectKept(
            "push at the bottom", [&] { return stack.RSPushBottom(&value); }, depth);
        const auto store_ = [&] { return store.RHSAddObjectAt(i, &value); };
        expectKept("store", store_, [&] { return store.RHSLength(); });
        const auto hash_ = [&] { return hash.RHLAdd(i, holder.get()); };
        expectKept("hash list", hash_, [&] { return hash.RHLGet(i); });
        holder.release();
        holder = std::make_unique<CVekPointer>(&value);
        const auto tree_ = [&] { return tree.RTLAdd("key", &value); };
        expectKept("tree list", tree_, [&] { return tree.RTLLength(); });
        const auto vector_ = [&] { return vector.RAVAddToEnd(atom.get()); };
        expectKept("atom vector", vector_, [&] { return vector.RAVSize(); });
        atom.release();
        atom = std::make_unique<CVekAtom>(1);
        expectKept(
            "pool", [&] { return pool.RSPAddWorkDetail(&value); }, [] { return 0; });
    }
}

TEST(OutOfMemory, LosesNoRunOfATimedPoolAndNoLock) {
    int value = 0;
    CVekTimedPool pool(0);
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(pool.RSPAddWorkDetail(&value), 1);
    kvx::test::ErrorRecorder errors;
    newsBeforeFailure = 1;
    pool.RTPKickThreads();
    newsBeforeFailure = -1;
    EXPECT_EQ(errors.take().at(0).code, -220553);
    std::thread([&] { EXPECT_EQ(pool.RSPTakeWorkDetail(), nullptr); }).join();  // not half a kick
}

TEST(OutOfMemory, LeavesACallbackToTheCallerOfTheSignalHandler) {
    struct Nothing : CCallbackBase {
        void operator()() override {}
    };
    auto callback = std::make_unique<Nothing>();
    CSignalHandler& handler = CSignalHandler::Instance();
    newsBeforeFailure = 0;
    EXPECT_FALSE(handler.add(36, callback.get()));
    newsBeforeFailure = -1;
    handler.stop();
}
