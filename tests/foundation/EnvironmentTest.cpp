// Home directories, the host's name, read-only files, this process and the programs that it starts.

#include <sys/stat.h>
#include <unistd.h>

#include "foundation/CVekEnv.h"
#include "foundation/CVekReadOnlyFile.h"
#include "foundation/foundation.h"
#include "tests/foundation/Owned.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::test {
namespace {

struct Environment : testing::Test {
    void SetUp() override { TearDown(); }
    void TearDown() override {
        unsetenv("KVX_HOME");
        unsetenv("VEK_HOME");
    }
};

TEST_F(Environment, FindsTheHomeDirectoriesAndTheHostsName) {
    EXPECT_STREQ(CVekEnv().REHome(), KVX_EXPECTED_PREFIX);
    EXPECT_STREQ(CVekEnv::REVekHome()->RAString(), KVX_EXPECTED_PREFIX);
    setenv("KVX_HOME", "/opt/kvx", 1);
    const CVekEnv environment;
    const CVekAtom* vekHome = CVekEnv::REVekHome();
    setenv("KVX_HOME", "/other", 1);
    setenv("VEK_HOME", "/opt/vek", 1);
    EXPECT_STREQ(environment.REHome(), "/opt/kvx");  // as it was when constructed
    EXPECT_STREQ(vekHome->RAString(), "/opt/kvx");
    EXPECT_STREQ(CVekEnv::REVekHome()->RAString(), "/opt/vek");
    setenv("KVX_HOME", "", 1);  // empty is unset
    EXPECT_STREQ(CVekEnv().REHome(), KVX_EXPECTED_PREFIX);
    std::array<char, 256> name{};
    ASSERT_EQ(gethostname(name.data(), name.size() - 1), 0);
    EXPECT_STREQ(CVekEnv().RELocalHost(), name.data());
}

TEST(ReadOnlyFile, ReadsTheWholeContent) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("config");
    const std::string content(70'000, 'c');
    std::ofstream(path) << content;
    CVekReadOnlyFile file(path.c_str(), false);
    EXPECT_EQ(file.ROFReadAll(), nullptr);  // not open yet
    EXPECT_EQ(file.ROFCheckAccess(), VEK_FILE_OK);
    ASSERT_EQ(file.ROFOpen(), 0);
    EXPECT_EQ(take(file.ROFReadAll()), content);
    EXPECT_EQ(take(file.ROFReadAll()), content);
    std::ofstream(path, std::ios::trunc).flush();
    ASSERT_EQ(file.ROFOpen(), 0);
    EXPECT_EQ(take(file.ROFReadAll()), "");
}

TEST(ReadOnlyFile, RefusesWhatIsNoReadableFileOrTooLarge) {
    const TemporaryDirectory directory;
    const std::string pipe = directory.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string missing = directory.file("missing");
    for (const char* path : {missing.c_str(), directory.path().c_str(), pipe.c_str(), "/dev/zero",
                             static_cast<const char*>(nullptr)}) {
        CVekReadOnlyFile file(path, false);
        EXPECT_EQ(file.ROFCheckAccess(), -1);
        EXPECT_EQ(file.ROFOpen(), -220549);
        EXPECT_EQ(file.ROFReadAll(), nullptr);
    }
    const std::string path = directory.file("large");
    std::ofstream(path) << "x";
    std::filesystem::resize_file(path, (64U << 20U) + 1);
    CVekReadOnlyFile file(path.c_str(), false);
    ASSERT_EQ(file.ROFOpen(), 0);
    const std::string said = errorOutputOf([&] { EXPECT_EQ(file.ROFReadAll(), nullptr); });
    EXPECT_NE(said.find(path), std::string::npos);
}

// This process, and the programs that it starts.

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
