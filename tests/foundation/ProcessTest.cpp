// This process, and the programs that it starts.

#include "foundation/foundation.h"
#include "tests/foundation/Owned.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::test {
namespace {

// Its destructor would show that static destructors ran.
struct Tattletale {
    ~Tattletale() { std::fputs("static destructor\n", stderr); }
};

TEST(Process, ExitFlushesTheStreamsAndRunsNoDestructors) {
    const TemporaryDirectory directory;
    const std::string output = directory.file("output");
    EXPECT_EXIT(
        {
            std::freopen(output.c_str(), "w", stdout);
            static const Tattletale tattletale;
            std::cout << "from a stream";
            std::printf(" and from C");
            CVekProcess::Instance().Exit(7);
        },
        testing::ExitedWithCode(7), "^$");
    EXPECT_EQ(contentOf(output), "from a stream and from C");
}

TEST(ProcessMgr, StartsAndEndsAProgramThatCanRun) {
    CVekProcessMgr manager;
    const char* const arguments[] = {"sleep", "1000", nullptr};
    CVekProcessHandle handle = manager.StartProcess("/bin", "sleep", arguments, nullptr, nullptr);
    const unsigned long pid = handle.GetPID();
    ASSERT_NE(pid, 0U);
    EXPECT_EQ(take(VekGetBinaryName(pid)), "sleep");
    EXPECT_FALSE(manager.KillProcess(handle));  // false: it did end it
    EXPECT_EQ(VekGetBinaryName(pid), nullptr);
    EXPECT_EQ(handle.GetPID(), 0U);
    EXPECT_TRUE(manager.KillProcess(handle));
    EXPECT_EQ(manager.StartProcess("/", "missing", arguments, nullptr, nullptr).GetPID(), 0U);
    EXPECT_EQ(manager.StartProcess(nullptr, nullptr, nullptr, nullptr, nullptr).GetPID(), 0U);
    EXPECT_EQ(CVekProcessHandle().GetPID(), 0U);
    EXPECT_EQ(VekGetBinaryName(0), nullptr);
}

}  // namespace
}  // namespace kvx::test
