// What the documentation shows is what the code does: worked bytes are built anew and compared, and
// the README's program is the one that is compiled.

#include "tests/support/LinkEnd.h"
#include "tests/support/Packets.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::test {
namespace {

using Bytes = std::vector<unsigned char>;

std::string inTheTree(const std::string& path) {
    return contentOf(KVX_SOURCE_DIR "/" + path);
}

// The fenced blocks of a page by what stands behind the fence.
std::map<std::string, std::string> blocksOf(const std::string& page) {
    std::map<std::string, std::string> blocks;
    std::istringstream in(inTheTree(page));
    std::string name;
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("```", 0) == 0) {
            inside = !inside;
            if (inside) name = line.substr(3);
        } else if (inside) {
            blocks[name] += line + '\n';
        }
    }
    return blocks;
}

Bytes documented(const std::string& name) {
    Bytes bytes;
    std::istringstream lines(blocksOf("docs/wire-protocol.md")["hex " + name]);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        for (std::string word; words >> word;) {
            bytes.push_back(static_cast<unsigned char>(std::stoul(word, nullptr, 16)));
        }
    }
    return bytes;
}

template <class Range>
Bytes asBytes(const Range& range) {
    return Bytes(range.begin(), range.end());
}

TEST(WireProtocolPage, ShowsMessagesAndTheLinkAsTheyAreEncoded) {
    RvMsg message;
    message.append("x", "ab");
    message.append("n", 5L);
    EXPECT_EQ(documented("message"), bytesOf(message));
    EXPECT_EQ(documented("keepalive"), bytesOf(RvMsg()));
    EXPECT_EQ(documented("greeting"), asBytes(wire::encode(wire::Greeting{0, 4, 0})));
    EXPECT_EQ(documented("answer"), asBytes(wire::encode(wire::Greeting{0, 4, 1})));
    wire::ParameterBlock block;
    block.head = wire::kPropose;
    block.queueType = 2;
    block.variant = 1;
    block.firstLimit = block.secondLimit = 0x4000000;
    EXPECT_EQ(documented("proposal"), asBytes(wire::encode(block)));
}

TEST(WireProtocolPage, ShowsTheSessionsMessagesAndAPacketAsATransportCutsIt) {
    const Bytes pattern = encodedSubject("NEWS.>");
    EXPECT_EQ(documented("listen"), bytesOf(wire::buildListen(pattern, nullptr, 53)));
    RvMsg payload;
    payload.append("x", "ab");
    const Bytes news = encodedSubject("NEWS.UK");
    const auto data = wire::buildData(news, nullptr, 53, {RVMSG_MSG, 0, payload.data()});
    EXPECT_EQ(documented("data"), bytesOf(data));
    CVekTransport transport(nullptr);
    CVekAtom* atom = bytesAtom("ABC");
    transport.RTTakeROMP(&atom);
    transport.RTCreatePackets(VEK_TRANS_V0, true);
    EXPECT_EQ(documented("packet"), asBytes(packetsOf(transport).at(0)));
}

TEST(ProgramsInThePages, AreThoseThatAreCompiled) {
    EXPECT_EQ(blocksOf("README.md")["cpp"], inTheTree("examples/hear/main.cpp"));
    for (const auto& [page, expected] : {std::pair{"classes", 9}, {"tutorial", 3}}) {
        int programs = 0;
        for (const auto& [name, shown] : blocksOf(std::string("docs/") + page + ".md")) {
            const auto space = name.find(' ');
            if (space == name.npos) continue;
            const std::string file = std::string("examples/") + page + "/" + name.substr(space + 1);
            EXPECT_EQ(shown, inTheTree(file)) << file;
            ++programs;
        }
        EXPECT_EQ(programs, expected);
    }
}

}  // namespace
}  // namespace kvx::test
