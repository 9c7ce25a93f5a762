// The members' message: what is not exactly a beat of the group is nobody's beat.

#include "rv/ft/GroupMessage.h"

#include "rv/message/rvmsg.h"

using kvx::ft::Beat;
using kvx::ft::MemberState;

namespace {

const Beat kBeat{{50, 1'700'000'000'123U, "0A000001.1F2E.7"}, MemberState::Active, 123'456};

// A message in which one field is not what it should be.
std::vector<unsigned char> beatWith(const std::string& field, rvmsg_Type type, rvmsg_Size size,
                                    const void* value) {
    std::vector<unsigned char> message(1024);
    const std::uint32_t number = 1;
    const std::uint64_t start = 1;
    rvmsg_Init(message.data(), 1024);
    const auto put = [&](const char* name, rvmsg_Type good, rvmsg_Size goodSize, const void* data) {
        const bool isOdd = field == name;
        if (isOdd && type == RVMSG_NONE) return;
        EXPECT_EQ(0, rvmsg_Append(message.data(), 1024, name, isOdd ? type : good,
                                  isOdd ? size : goodSize, isOdd ? value : data));
    };
    put("id", RVMSG_STRING, 0, "a");
    put("weight", RVMSG_UINT, 4, &number);
    put("start", RVMSG_UINT, 8, &start);
    put("state", RVMSG_UINT, 4, &number);
    put("group", RVMSG_STRING, 0, "g.1");
    return message;
}

}  // namespace

TEST(GroupMessage, CarriesABeat) {
    const auto message = kvx::ft::encodeBeat(kBeat, "model.DEFAULT.1");
    const auto back = kvx::ft::decodeBeat(message.data(), "model.DEFAULT.1");
    ASSERT_TRUE(back);
    EXPECT_EQ(back->rank.id, kBeat.rank.id);
    EXPECT_EQ(back->rank.weight, 50U);
    EXPECT_EQ(back->rank.start, kBeat.rank.start);
    EXPECT_EQ(back->state, MemberState::Active);
    EXPECT_EQ(back->sent, kBeat.sent);
}

TEST(GroupMessage, IgnoresWhateverIsNoBeatOfTheGroup) {
    const auto isBeat = [](const std::string& field, rvmsg_Type type, rvmsg_Size size,
                           const void* value) {
        return kvx::ft::decodeBeat(beatWith(field, type, size, value).data(), "g.1").has_value();
    };
    const std::uint32_t big = 4;
    const std::uint32_t zero = 0;
    const std::string longId(300, 'x');
    EXPECT_TRUE(isBeat("", 0, 0, nullptr));
    for (const char* field : {"id", "weight", "start", "state", "group"}) {
        EXPECT_FALSE(isBeat(field, RVMSG_NONE, 0, nullptr)) << field;
        EXPECT_FALSE(isBeat(field, RVMSG_OPAQUE, 4, &big)) << field;
    }
    EXPECT_FALSE(isBeat("state", RVMSG_UINT, 4, &big));
    EXPECT_FALSE(isBeat("state", RVMSG_UINT, 4, &zero));
    EXPECT_FALSE(isBeat("start", RVMSG_UINT, 4, &big));
    EXPECT_FALSE(isBeat("id", RVMSG_STRING, 0, ""));
    EXPECT_FALSE(isBeat("id", RVMSG_STRING, 1, "abc"));
    EXPECT_FALSE(isBeat("id", RVMSG_STRING, 0, longId.c_str()));
    EXPECT_EQ(kvx::ft::groupSubject("g.1"), kvx::ft::groupSubject("g_1"));
    EXPECT_FALSE(isBeat("group", RVMSG_STRING, 0, "g_1")) << "which only shares the subject";
}

TEST(GroupMessage, NamesTheSubjectAfterTheGroup) {
    EXPECT_EQ(kvx::ft::groupSubject("modelsrv.NET1.2"), "_RVFT.modelsrv_NET1_2");
    EXPECT_EQ(kvx::ft::groupSubject(std::string(250, 'g')), "_RVFT." + std::string(250, 'g'));
    for (const std::string& bad :
         {std::string(), std::string("*"), std::string(">"), std::string(251, 'g')}) {
        EXPECT_FALSE(kvx::ft::groupSubject(bad)) << bad;
    }
}
