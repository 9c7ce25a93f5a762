// What a program's help names, its man page and its completion name too.

#include <regex>

#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

using Words = std::set<std::string>;

// The options in a text: words that begin with one or two hyphens and a letter.
Words optionsIn(const std::string& text) {
    static const std::regex option(R"((^|[\s\[",(/`'|])(--?[a-z][a-z-]*))");
    Words found;
    for (std::sregex_iterator one(text.begin(), text.end(), option), end; one != end; ++one) {
        found.insert((*one)[2]);
    }
    return found;
}

// Without their hyphens, for a program that takes one or two.
Words namesIn(const std::string& text) {
    Words names;
    for (const auto& option : optionsIn(text))
        names.insert(option.substr(option.find_first_not_of('-')));
    return names;
}

std::string packaged(const std::string& name) {
    std::ifstream in(KVX_SOURCE_DIR "/packaging/" + name);
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    return std::regex_replace(text, std::regex(R"(\\-)"), "-");
}

class ManPageTest : public ::testing::Test {
  protected:
    std::string help(const std::string& line) {
        const Ended ended = bus_.shell(line);
        EXPECT_EQ(ended.status, 0) << line << ended.errors;
        return ended.output;
    }
    std::string kvxHelp() {
        const std::string overview = help("kvx help");
        static const std::regex command(R"(\n  ([a-z]+) )");
        std::string text = overview;
        std::sregex_iterator one(overview.begin(), overview.end(), command);
        EXPECT_NE(one, std::sregex_iterator()) << overview;
        for (; one != std::sregex_iterator(); ++one) text += help("kvx help " + one->str(1));
        return text;
    }

    Installation bus_;
};

TEST_F(ManPageTest, NamesTheOptionsThatTheHelpNames) {
    EXPECT_EQ(optionsIn(packaged("man/kvx.1")), optionsIn(kvxHelp()));
    EXPECT_EQ(optionsIn(packaged("man/rva.1")), optionsIn(help("rva -help")));
    EXPECT_EQ(optionsIn(packaged("man/rvd.1")), optionsIn(help("rvd --help")));
    EXPECT_EQ(namesIn(packaged("man/rvbridge.1")), namesIn(help("rvbridge --help")));
}

TEST_F(ManPageTest, HasTheCompletionsThatTheHelpNames) {
    for (const auto& [completion, text] : {std::pair("completions/kvx", kvxHelp()),
                                           std::pair("completions/rva", help("rva -help"))}) {
        const Words completed = optionsIn(packaged(completion));
        for (const std::string& option : optionsIn(text)) {
            const bool hasLongForm = option.size() == 2;
            EXPECT_TRUE(hasLongForm || completed.contains(option)) << completion << option;
        }
    }
    const Words completed = namesIn(packaged("completions/rvbridge"));
    for (const auto& name : namesIn(help("rvbridge --help"))) {
        EXPECT_TRUE(name.size() == 1 || completed.contains(name)) << name;
    }
}

}  // namespace
}  // namespace kvx::test
