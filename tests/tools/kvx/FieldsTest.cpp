#include "tools/kvx/Fields.h"

#include "tools/kvx/DatumJson.h"

namespace kvx::tool {
namespace {

std::string jsonOf(const std::vector<std::string>& fields) {
    RvMsg message;
    for (const auto& field : fields) EXPECT_EQ(appendField(message, field), "") << field;
    return messageAsJson("A.B", nullptr, message);
}

TEST(Fields, CarryEveryTypeFromTextToMessageAndBack) {
    EXPECT_EQ(jsonOf({"name=edge=1", "a:i8=-128", "b:u16=65535", "c:i64=-9223372036854775808",
                      "d:u64=18446744073709551615"}),
              R"({"subject":"A.B","reply":null,"type":"message","fields":[)"
              R"({"name":"name","type":"string","value":"edge=1"},)"
              R"({"name":"a","type":"i8","value":-128},)"
              R"({"name":"b","type":"u16","value":65535},)"
              R"({"name":"c","type":"i64","value":-9223372036854775808},)"
              R"({"name":"d","type":"u64","value":18446744073709551615}]})");
    EXPECT_EQ(jsonOf({"f:f64=0.5", "y:bool=true", "i:ip=10.0.0.255", "p:port=7500", "s:subject=X.Y",
                      "h:hex=00ff", "e:hex="}),
              R"({"subject":"A.B","reply":null,"type":"message","fields":[)"
              R"({"name":"f","type":"f64","value":0.5},)"
              R"({"name":"y","type":"bool","value":true},)"
              R"({"name":"i","type":"ip","value":"10.0.0.255"},)"
              R"({"name":"p","type":"port","value":7500},)"
              R"({"name":"s","type":"subject","value":"X.Y"},)"
              R"({"name":"h","type":"opaque","value":"00ff"},)"
              R"({"name":"e","type":"opaque","value":""}]})");
}

TEST(Fields, AreRefusedWithTheCulpritNamed) {
    RvMsg message;
    for (const char* text :
         {"novalue", "a:i8=128", "a:i8=", "a:u16=-1", "a:i32=12x", "a:f64=zero", "a:bool=yes",
          "a:ip=1.2.3", "a:ip=1.2.3.4.", "a:ip=1.2.3.256", "a:port=70000", "a:hex=abc", "a:hex=zz",
          "a:subject=a..b", "a:colour=red"}) {
        const std::string problem = appendField(message, text);
        EXPECT_NE(problem.find(text), std::string::npos) << text << " -> " << problem;
    }
    EXPECT_NE(appendField(message, std::string(200, 'n') + "=1").find("name"), std::string::npos);
    EXPECT_EQ(message.size(), 8U);
}

TEST(Fields, KeepJsonValidWhateverTheBytes) {
    RvMsg message;
    const char bytes[] = "\xff\"\n";
    message.append("x", RVMSG_STRING, 4, bytes);
    EXPECT_EQ(messageAsJson("S", "R", message),
              "{\"subject\":\"S\",\"reply\":\"R\",\"type\":\"message\",\"fields\":[{\"name\":\"x\","
              "\"type\":\"string\",\"value\":\"\xef\xbf\xbd\\\"\\n\"}]}");
}

}  // namespace
}  // namespace kvx::tool
