// The man pages: what a program's help names its page names too, and mandoc finds nothing.

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

// Without their hyphens, as some programs take one or two.
Words namesIn(const std::string& text) {
    Words names;
    for (const auto& option : optionsIn(text))
        names.insert(option.substr(option.find_first_not_of('-')));
    return names;
}

std::string packaged(const std::string& name) {
    const std::string text = contentOf(KVX_SOURCE_DIR "/packaging/" + name);
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
    EXPECT_EQ(namesIn(packaged("man/kvx.1")), namesIn(kvxHelp()));
    for (const std::string program : {"modeld", "rva", "rvbridge", "rvd"}) {
        EXPECT_EQ(namesIn(packaged("man/" + program + ".1")), namesIn(help(program + " --help")))
            << program;
    }
}

TEST_F(ManPageTest, IsSoundForEveryPage) {
    const Ended ended =
        bus_.shell("mandoc -Tlint -W warning " KVX_SOURCE_DIR "/packaging/man/*.[1-8]");
    EXPECT_EQ(ended.output + ended.errors, "");
    EXPECT_EQ(ended.status, 0);
}

}  // namespace
}  // namespace kvx::test
