// `kvx explain`: no code of the headers and no subject of an advisory is without an explanation,
// and what people have at hand (a number, a name, a line of a log) finds it.

#include <regex>

#include "tests/system/Installation.h"
#include "tools/kvx/Explanations.h"

namespace kvx::tool {
namespace {

std::string sourcesBelow(const std::vector<std::string>& rooms) {
    std::string all;
    for (const std::string& room : rooms) {
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(KVX_SOURCE_DIR "/" + room)) {
            if (entry.path().filename().string().starts_with("Explain")) continue;
            if (entry.is_regular_file()) all += test::contentOf(entry.path());
        }
    }
    return all;
}

bool isExplained(const std::string& name, const std::string& code) {
    return std::ranges::any_of(allExplanations(), [&](const Explanation& one) {
        return one.code == code && (one.name == name || one.name.empty());
    });
}

TEST(Explanations, HaveEveryCodeOfTheHeaders) {
    static const std::regex constant(R"((?:constexpr int )?(k\w+) = (-?\d+)[;,])");
    for (const char* header : {"rv/error/rvCodes.h", "rv/ft/GroupCodes.h", "platform/Socket.h",
                               "foundation/ErrorCodes.h", "lib/mom/base/VekCodes.h"}) {
        const std::string text = test::contentOf(std::string(KVX_SOURCE_DIR "/") + header);
        int codes = 0;
        for (std::sregex_iterator one(text.begin(), text.end(), constant), end; one != end; ++one) {
            const int code = std::stoi((*one)[2]);
            const bool isOther = header == std::string("platform/Socket.h") && code < 10'000;
            const bool isSuccess = (*one)[1] == "kOk";  // 1 in the foundation
            if (isOther || isSuccess) continue;
            ++codes;
            EXPECT_TRUE(isExplained((*one)[1], (*one)[2])) << header << ": " << one->str();
        }
        EXPECT_GE(codes, 6) << header;
    }
}

TEST(Explanations, HaveEveryAdvisoryAndTellWhyAndWhatToDo) {
    const std::string header = test::contentOf(KVX_SOURCE_DIR "/rv/error/rvAdvisory.h");
    static const std::regex subject(R"re(k\w+Subject =\s+"([^"]+)")re");
    const std::sregex_iterator first(header.begin(), header.end(), subject);
    ASSERT_NE(first, std::sregex_iterator());
    for (auto one = first; one != std::sregex_iterator(); ++one) {
        const auto found = explanationsOf((*one)[1]);
        ASSERT_EQ(found.size(), 1U) << one->str();
        EXPECT_EQ(found[0].name, (*one)[1]);
    }
    std::set<std::string> known;
    for (const Explanation& one : allExplanations()) {
        EXPECT_TRUE(!one.why.empty() && !one.mend.empty()) << one.kind << one.code << one.text;
        EXPECT_TRUE(known.insert(one.kind + one.code + one.name + one.text).second) << one.text;
    }
}

TEST(Explanations, HaveOnlyLinesThatTheirProgramWrites) {
    const std::map<std::string, std::vector<std::string>> rooms = {
        {"line of rvd", {"rvd", "platform"}},
        {"line of rvbridge", {"rvbridge"}},
        {"line of kvx", {"tools", "lib/kvx"}},
        {"line of the libraries", {"rv", "lib"}}};
    for (const auto& [kind, sources] : rooms) {
        // A line may be broken between two literals.
        const std::string text =
            std::regex_replace(sourcesBelow(sources), std::regex(R"("\s+")"), "");
        for (const Explanation& one : allExplanations()) {
            if (one.kind != kind) continue;
            EXPECT_NE(text.find(one.text), std::string::npos) << kind << one.text;
        }
    }
}

TEST(Explanations, AreFoundByWhatPeopleHaveAtHand) {
    for (const auto& [words, expected] : std::vector<std::pair<std::string, std::string>>{
             {"-220552", "-220552"},
             {"220552", "-220552"},
             {"CVekError -220552 CVekRvNet:12 Null or invalid argument", "-220552"},
             {"kServiceNotFound", "16"},
             {"servicenotfound", "16"},
             {"Requested service was not found.", "16"},
             {"mixedanswers", "Errc::MixedAnswers"},
             {"Errc::TimedOut", "Errc::TimedOut"},
             {"DATALOSS", "_RV.WARN.SYSTEM.DATALOSS"},
             {"_RV.WARN.SYSTEM.DATALOSS", "_RV.WARN.SYSTEM.DATALOSS"},
             {"slow reader", "slow reader"},
             {"2026-01-31T12:00:00Z WARN 7F000001.1 (127.0.0.1:4) is closed: it held most of a "
              "full "
              "memory, 5 bytes held",
              "it held most of a full memory"},
             {"2026-01-31T12:00:00Z WARN no engine: No server available", "no engine"},
             {"kvx: the bus daemon is lost (tcp:7500)", "the bus daemon is lost"},
             {"10061", "10061"}}) {
        const auto all = explanationsOf(words);
        ASSERT_FALSE(all.empty()) << words;
        for (const Explanation& one : all) {
            EXPECT_TRUE(one.code == expected || one.name == expected || one.text == expected)
                << words << " finds " << one.kind << one.code << one.text;
        }
    }
    EXPECT_GE(explanationsOf("1").size(), 5U);  // one in each table
    EXPECT_TRUE(explanationsOf("").empty());
    EXPECT_TRUE(explanationsOf("42").empty());
}

TEST(Explain, IsACommandThatNeedsNoBus) {
    const test::TemporaryDirectory home;
    const auto kvx = [&](const std::vector<std::string>& arguments) {
        test::ChildProcess child(KVX_BIN_DIR "/kvx", arguments, {"KVX_HOME=" + home.path()});
        const int status = child.wait();
        return std::tuple(status, child.output(), child.errors());
    };
    const auto [status, output, errors] = kvx({"explain", "-220552"});
    EXPECT_EQ(status, 0) << errors;
    EXPECT_TRUE(output.starts_with("error report -220552, kInvalidArgument: Null or invalid"))
        << output;
    const auto [jsonStatus, json, none] = kvx({"explain", "--json", "slow", "reader"});
    EXPECT_EQ(jsonStatus, 0) << none;
    EXPECT_TRUE(json.starts_with(R"({"kind":"cause of a loss","code":null,"name":"",)")) << json;
    const auto [listStatus, list, quiet] = kvx({"explain"});
    EXPECT_EQ(listStatus, 0) << quiet;
    for (const Explanation& one : allExplanations()) {
        EXPECT_NE(list.find(one.name.empty() ? one.text : one.name), std::string::npos) << one.text;
    }
    const auto [unknown, nothing, complaint] = kvx({"explain", "slow raeder"});
    EXPECT_EQ(unknown, 1);
    EXPECT_EQ(nothing, "");
    EXPECT_EQ(complaint, "kvx: nothing is known of 'slow raeder'; did you mean 'slow reader'?\n");
}

}  // namespace
}  // namespace kvx::tool
