// What the documentation shows is what the code does: worked bytes are built anew and compared, and
// the README's program is the one that is compiled.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "mom/transport/CVekTransport.h"
#include "rv/rv.h"
#include "rv/wire/ControlMessage.h"
#include "rv/wire/Greeting.h"
#include "rv/wire/ParameterBlock.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string contentOf(const std::string& path) {
    std::ifstream in(std::string(KVX_SOURCE_DIR "/") + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The fenced blocks of a page by what stands behind the fence.
std::map<std::string, std::string> blocksOf(const std::string& page) {
    std::map<std::string, std::string> blocks;
    std::istringstream in(contentOf(page));
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
Bytes bytesOf(const Range& range) {
    return Bytes(range.begin(), range.end());
}

Bytes bytesOf(const RvMsg& message) {
    const auto* begin = static_cast<const unsigned char*>(message.data());
    return Bytes(begin, begin + message.size());
}

Bytes subject(const char* text) {
    Bytes encoded(500);
    encoded.resize(static_cast<std::size_t>(rvSubject_FromText(encoded.data(), 500, text)));
    return encoded;
}

TEST(WireProtocolPage, ShowsMessagesAsTheyAreEncoded) {
    RvMsg message;
    message.append("x", "ab");
    message.append("n", 5L);
    EXPECT_EQ(documented("message"), bytesOf(message));
    EXPECT_EQ(documented("keepalive"), bytesOf(RvMsg()));
}

TEST(WireProtocolPage, ShowsTheLinkAsItIsNegotiated) {
    namespace wire = kvx::wire;
    EXPECT_EQ(documented("greeting"), bytesOf(wire::encode(wire::Greeting{0, 4, 0})));
    EXPECT_EQ(documented("answer"), bytesOf(wire::encode(wire::Greeting{0, 4, 1})));
    wire::ParameterBlock block;
    block.head = wire::kPropose;
    block.queueType = 2;
    block.variant = 1;
    block.firstLimit = block.secondLimit = 0x4000000;
    EXPECT_EQ(documented("proposal"), bytesOf(wire::encode(block)));
}

TEST(WireProtocolPage, ShowsTheSessionsMessages) {
    namespace wire = kvx::wire;
    const Bytes pattern = subject("NEWS.>");
    EXPECT_EQ(documented("listen"),
              bytesOf(wire::buildListen(pattern, nullptr, 53).message.view()));
    RvMsg payload;
    payload.append("x", "ab");
    const Bytes news = subject("NEWS.UK");
    const auto data = wire::buildData(news, nullptr, 53, {RVMSG_MSG, 0, payload.data()});
    EXPECT_EQ(documented("data"), bytesOf(data.message.view()));
}

TEST(WireProtocolPage, ShowsAPacketAsATransportCutsIt) {
    CVekTransport transport(nullptr);
    const unsigned char record[] = {'A', 'B', 'C'};
    auto* atom = new CVekAtom(record, 3);
    transport.RTTakeROMP(&atom);
    transport.RTCreatePackets(VEK_TRANS_V0, true);
    const std::unique_ptr<CVekAtomVector> packets(transport.RTEncodes());
    unsigned char* bytes = nullptr;
    int length = 0;
    ASSERT_EQ(packets->RAVGetValue(0)->RAUChar(&bytes, &length), 1);
    EXPECT_EQ(documented("packet"), Bytes(bytes, bytes + length));
}

TEST(ProgramsInThePages, AreThoseThatAreCompiled) {
    EXPECT_EQ(blocksOf("README.md")["cpp"], contentOf("examples/hear/main.cpp"));
    int programs = 0;
    for (const auto& [name, shown] : blocksOf("docs/tutorial.md")) {
        if (name.rfind("cpp ", 0) != 0) continue;
        EXPECT_EQ(shown, contentOf("examples/tutorial/" + name.substr(4))) << name;
        ++programs;
    }
    EXPECT_EQ(programs, 10);
}

}  // namespace
