// Messages from a peer: validation, lookups, iteration, conversion, printing and copying of any
// bytes. A message that validation accepts must iterate to its end.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "rv/message/RvMsg.h"
#include "rv/message/RvMsgIterator.h"
#include "rv/message/WireFormat.h"

namespace {

struct Closer {
    void operator()(FILE* file) const { std::fclose(file); }
};

FILE* nowhere() {
    static const std::unique_ptr<FILE, Closer> file(std::fopen("/dev/null", "w"));
    return file.get();
}

void require(bool condition) {
    if (!condition) std::abort();
}

void convertAll(rvmsg_Type type, rvmsg_Size size, rvmsg_Data data) {
    std::vector<char> target(size + 64);
    for (const rvmsg_Type to : {RVMSG_DATETIME, RVMSG_STRING, RVMSG_BOOLEAN, RVMSG_IPDATA,
                                RVMSG_INT, RVMSG_UINT, RVMSG_REAL}) {
        for (const rvmsg_Size width : {1U, 2U, 4U, 8U, 12U, size + 40U}) {
            if (data != nullptr && size != 0) {
                rvmsg_Convert(to, width, target.data(), type, size, data);
            }
        }
    }
}

int visit(const char* name, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data, void* names) {
    static_cast<std::vector<std::string>*>(names)->emplace_back(name);
    convertAll(type, size, data);
    return 0;
}

// Callback and iterator must see the same fields while all can be decoded.
void readWhole(void* message) {
    std::vector<std::string> names;
    rvmsg_Iterate(message, nullptr, visit, &names);
    alignas(8) unsigned char scratch[16];
    for (const std::string& name : names) {
        rvmsg_Get(scratch, message, name.c_str(), nullptr, nullptr, nullptr);
        std::string path = name;
        path.append(".").append(name);
        rvmsg_GetRaw(message, path.c_str(), nullptr, nullptr, nullptr);
    }
    rvmsg_PrintMsg(message, nowhere());
    const RvMsg wrapped(message);
    const std::unique_ptr<RvMsgIterator> fields(wrapped.newIterator());
    std::size_t count = 0;
    while (const RvDatum* field = fields->next()) {
        const RvDatum copy(*field);
        copy.print(nowhere());
        ++count;
    }
    require(count <= names.size());
}

// Appends to a growing copy must keep the existing fields.
void appendTo(const RvMsg& message) {
    RvMsg copy(message);
    const rvmsg_Size before = copy.size();
    const RvStatus status = copy.append("a.b", "text");
    require(status == 0 ? copy.size() > before : copy.size() == before);
    copy.append("fuzz", 7);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
    std::vector<std::uint8_t> copy(bytes, bytes + length);
    const bool isValid = rvmsg_Validate(copy.data(), copy.size()) == 0;
    if (length < kvx::kHeaderBytes) {
        require(!isValid);
        return 0;
    }
    // The plain readers trust the length word: set a correct one.
    kvx::storeBig32(copy.data(), static_cast<std::uint32_t>(length));
    kvx::storeBig32(copy.data() + 4, kvx::kMessageMagic);
    readWhole(copy.data());
    appendTo(RvMsg(static_cast<rvmsg_Msg>(copy.data())));
    if (isValid) {
        std::vector<std::string> names;
        require(rvmsg_Iterate(copy.data(), nullptr, visit, &names) == 0);
    }
    return 0;
}
