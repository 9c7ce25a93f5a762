// Values and messages as text.
//
// A message is printed without recursion, with one cursor for each level of nesting. Levels deeper
// than those of a valid message are not entered.

#include <cstring>

#include "rv/error/rvCodes.h"
#include "rv/message/SubjectView.h"
#include "rv/message/WireFormat.h"
#include "rv/message/rvSubject.h"
#include "rv/message/rvmsg.h"

namespace {

using kvx::FieldCursor;
using kvx::WireField;
namespace code = kvx::message_code;

constexpr unsigned kMaxValueText = 1000;

int printSubject(rvmsg_Size size, rvmsg_Data subject, FILE* out) {
    char text[kMaxValueText];
    const bool fits = size == 0 || rvSubject_Length(subject) <= size;
    const bool isText = fits && rvSubject_ToText(text, sizeof text, subject) != nullptr;
    std::fprintf(out, "[%s]", isText ? text : "");
    return isText ? code::kOk : code::kInvalidData;
}

int printConverted(rvmsg_Type type, rvmsg_Size size, rvmsg_Data data, FILE* out) {
    char text[kMaxValueText];
    const int result = rvmsg_Convert(RVMSG_STRING, sizeof text, text, type, size, data);
    if (result == code::kOk) std::fputs(text, out);
    return result;
}

// At most `size` characters; 0 means up to the terminator.
int printString(rvmsg_Size size, rvmsg_Data data, FILE* out) {
    const char* const text = static_cast<const char*>(data);
    const std::size_t characters = size == 0 ? std::strlen(text) : strnlen(text, size);
    std::fputc('"', out);
    std::fwrite(text, 1, characters, out);
    std::fputc('"', out);
    return code::kOk;
}

// Everything but messages.
int printValue(rvmsg_Type type, rvmsg_Size size, rvmsg_Data data, FILE* out) {
    switch (type) {
        case RVMSG_BADDATA:
            std::fputs("BADDATA", out);
            return code::kOk;
        case RVMSG_NONE:
            std::fputs("NONE", out);
            return code::kOk;
        case RVMSG_OPAQUE:
            std::fprintf(out, "[%d opaque bytes]", static_cast<std::int32_t>(size));
            return code::kOk;
        default:
            break;
    }
    if (data == nullptr) return code::kInvalidArgument;
    switch (type) {
        case RVMSG_SUBJECT:
            return printSubject(size, data, out);
        case RVMSG_DATETIME:
        case RVMSG_BOOLEAN:
        case RVMSG_IPDATA:
        case RVMSG_INT:
        case RVMSG_UINT:
        case RVMSG_REAL:
            return printConverted(type, size, data, out);
        case RVMSG_STRING:
            return printString(size, data, out);
        case RVMSG_ENCRYPTED:
            std::fprintf(out, "[%d encrypted bytes]",
                         static_cast<std::int32_t>(kvx::loadBig32(data)));
            return code::kOk;
        default:
            return code::kOk;
    }
}

// The messages being printed, outermost first.
class MessagePrinter {
  public:
    explicit MessagePrinter(FILE* out) : out_(out) {}

    void print(const void* message) {
        open(message);
        while (depth_ > 0) step();
    }

  private:
    void open(const void* message) {
        std::fputc('{', out_);
        if (depth_ <= kvx::kMaxNesting && kvx::hasMagic(message, kvx::kMessageMagic)) {
            cursors_[depth_++] = FieldCursor(message);
        } else {
            close();
        }
    }

    void close() {
        std::fputc('}', out_);
        std::fflush(out_);
    }

    void step() {
        WireField field;
        if (cursors_[depth_ - 1].next(field) != FieldCursor::Step::kField) {
            --depth_;
            close();
            return;
        }
        if (field.name == nullptr) {
            std::fputc(' ', out_);
        } else {
            std::fprintf(out_, " %s=", field.name);
        }
        if (field.type == RVMSG_MSG) {
            open(field.data);
        } else {
            printField(field);
        }
    }

    void printField(const WireField& field) {
        alignas(8) unsigned char scratch[16];
        rvmsg_Size size = 0;
        rvmsg_Data data = nullptr;
        const bool isDecoded = kvx::decodeField(field, scratch, size, data);
        printValue(isDecoded ? field.type : rvmsg_Type{RVMSG_BADDATA}, size, data, out_);
    }

    FILE* out_;
    FieldCursor cursors_[kvx::kMaxNesting + 1];
    unsigned depth_ = 0;
};

}  // namespace

int rvmsg_Print(rvmsg_Type type, rvmsg_Size size, rvmsg_Data data, FILE* stream) {
    FILE* const out = stream == nullptr ? stdout : stream;
    return type == RVMSG_MSG ? rvmsg_PrintMsg(data, out) : printValue(type, size, data, out);
}

int rvmsg_PrintMsg(const void* buffer, FILE* stream) {
    if (buffer == nullptr) return code::kInvalidArgument;
    if (!kvx::hasMagic(buffer, kvx::kMessageMagic)) return code::kNotInitialized;
    MessagePrinter(stream == nullptr ? stdout : stream).print(buffer);
    return code::kOk;
}
