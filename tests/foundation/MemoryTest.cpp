// What is left behind when memory runs out in the middle of an operation: everything as before, and
// a result that says so.

#include <cstdlib>
#include <new>

#include "foundation/foundation.h"

namespace {

thread_local int allocationsLeft = -1;  // before one fails; negative: all succeed

void* allocateOrThrow(std::size_t size) {
    if (allocationsLeft >= 0 && allocationsLeft-- == 0) throw std::bad_alloc();
    void* const memory = std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

// Repeats `work` with its first allocation failing, then its second and so on until it succeeds.
// Every result before that is "out of memory", and `check` is called after each.
template <class Work, class Check>
void runOutOfMemory(const char* what, Work work, Check check) {
    for (int failing = 0;; ++failing) {
        ASSERT_LT(failing, 100) << what;
        allocationsLeft = failing;
        const int result = work();
        allocationsLeft = -1;
        if (result == 1) break;
        EXPECT_EQ(result, -220553) << what;
        check();
    }
}

}  // namespace

// NOLINTBEGIN(misc-new-delete-overloads): the array forms call these
void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
// NOLINTEND(misc-new-delete-overloads)

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
    for (int i = 0; i < 100; ++i) {  // across the growth of every one
        runOutOfMemory(
            "push", [&] { return stack.RSPush(&value); },
            [&] { EXPECT_EQ(stack.RSLength(), 2 * i); });
        runOutOfMemory(
            "push at the bottom", [&] { return stack.RSPushBottom(&value); },
            [&] { EXPECT_EQ(stack.RSLength(), 2 * i + 1); });
        runOutOfMemory(
            "store", [&] { return store.RHSAddObjectAt(i, &value); },
            [&] { EXPECT_EQ(store.RHSLength(), i); });
        runOutOfMemory(
            "hash list", [&] { return hash.RHLAdd(i, holder.get()); },
            [&] { EXPECT_EQ(hash.RHLGet(i), nullptr); });
        holder.release();
        holder = std::make_unique<CVekPointer>(&value);
        runOutOfMemory(
            "tree list", [&] { return tree.RTLAdd("key", &value); },
            [&] { EXPECT_EQ(tree.RTLLength(), i); });
        runOutOfMemory(
            "atom vector", [&] { return vector.RAVAddToEnd(atom.get()); },
            [&] { EXPECT_EQ(vector.RAVSize(), static_cast<unsigned>(i)); });
        atom.release();
        atom = std::make_unique<CVekAtom>(1);
        runOutOfMemory(
            "pool", [&] { return pool.RSPAddWorkDetail(&value); }, [] {});
    }
}

TEST(OutOfMemory, LosesNoRunOfATimedPoolAndNoLock) {
    int value = 0;
    CVekTimedPool pool(0);
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(pool.RSPAddWorkDetail(&value), 1);
    static std::atomic<int> reported;
    CVekError::SetHandler([](int code, const char*, int, const char*) { reported = code; });
    allocationsLeft = 1;
    pool.RTPKickThreads();
    allocationsLeft = -1;
    CVekError::SetHandler(nullptr);
    EXPECT_EQ(reported, -220553);
    std::thread([&] { EXPECT_EQ(pool.RSPTakeWorkDetail(), nullptr); }).join();  // not half a kick
}

TEST(OutOfMemory, LeavesACallbackToTheCallerOfTheSignalHandler) {
    struct Nothing : CCallbackBase {
        void operator()() override {}
    };
    auto callback = std::make_unique<Nothing>();
    CSignalHandler& handler = CSignalHandler::Instance();
    allocationsLeft = 0;
    EXPECT_FALSE(handler.add(36, callback.get()));
    allocationsLeft = -1;
    handler.stop();
}
