// Error reports: the default line, and handlers.

#include "tests/support/ErrorRecorder.h"

namespace {

std::string reportedLine(int code, const char* file, int line, const char* text) {
    return kvx::test::errorOutputOf([&] { CVekError(code, file, line, text); });
}

}  // namespace

TEST(ErrorReport, IsOneLineWithItsCatalogueText) {
    EXPECT_EQ(reportedLine(-220553, "CVekNet", 122, nullptr),
              "CVekError -220553 CVekNet:122 Out of memory\n");
    EXPECT_EQ(reportedLine(-220439, "CVekRvNet", 544, "no rva"),
              "CVekError -220439 CVekRvNet:544 The operation could not be completed: no rva\n");
    EXPECT_EQ(reportedLine(-1, nullptr, 0, ""), "CVekError -1 :0 Unknown error: \n");
}

TEST(ErrorReport, StaysOneLineWhateverTheTextHolds) {
    EXPECT_EQ(reportedLine(-220402, "F\n", 1, "a\nb\r\t\x1b[2J\x7f \xc3\xa4 \xc2\x9b"),
              "CVekError -220402 F\\n:1 Missing argument: "
              "a\\nb\\r\\t\\x1B[2J\\x7F \xc3\xa4 \\xC2\\x9B\n");
    // Bytes that belong to no character, a C1 control character, one too long, half a one.
    EXPECT_EQ(reportedLine(-1, "F", 1, "\x9b\x80\xc2\x85\xc1\xbf\xe4z\xe2\x82"),
              "CVekError -1 F:1 Unknown error: "
              "\\x9B\\x80\\xC2\\x85\\xC1\\xBF\\xE4z\\xE2\\x82\n");
    const std::string shown = "\xc2\xa0\xe2\x82\xac\xe0\xa4\x85\xf0\x9f\x8e\x89";
    EXPECT_EQ(reportedLine(-1, "F", 1, shown.c_str()),
              "CVekError -1 F:1 Unknown error: " + shown + "\n");
}

TEST(ErrorReport, GoesNoFurtherThanItself) {
    CVekError::SetHandler([](int, const char*, int, const char*) { throw 1; });
    EXPECT_EQ(reportedLine(-1, "F", 1, nullptr), "CVekError -1\n");
    CVekError::SetHandler(
        [](int, const char*, int, const char*) { throw std::runtime_error("full"); });
    EXPECT_EQ(reportedLine(-1, "F", 1, nullptr), "CVekError -1: full\n");
    CVekError::SetHandler([](int, const char*, int, const char*) { CVekError(-220547, "G", 2); });
    EXPECT_EQ(reportedLine(-1, "F", 1, nullptr), "CVekError -220547 G:2 Not found\n");
    CVekError::SetHandler(nullptr);
}

TEST(ErrorReport, GoesToTheHandlerOfAllThreads) {
    const VekErrorHandler standard = CVekError::SetHandler(nullptr);
    {
        kvx::test::ErrorRecorder errors;
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([] {
                for (int j = 0; j < 100; ++j) CVekError(-220544, "CVekNet", 17);
            });
        }
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(errors.take(), std::vector(400, kvx::test::Report{-220544, "CVekNet", 17, ""}));
    }
    EXPECT_EQ(CVekError::SetHandler(nullptr), standard);
    EXPECT_EQ(reportedLine(-220547, "F", 2, nullptr), "CVekError -220547 F:2 Not found\n");
}
