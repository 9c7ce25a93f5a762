#include "mom/net/CVekRvErrorClb.h"

#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "mom/base/VekTrace.h"
#include "rv/error/RvStatus.h"
#include "rv/message/RvDatum.h"
#include "rv/message/rvmsg.h"

namespace {

namespace errorClbLine {
enum Line : int { Warning = 142, Error = 157 };
}

constexpr int kLongestScalar = 1023;  // bytes of a scalar advisory's text, without the zero

std::string advisoryText(const char* subject, const char* message) {
    std::string text = std::string("Subject: ") + subject;
    if (message != nullptr) text += std::string(". Message: ") + message;
    return text;
}

void reportAdvisory(int code, int line, const char* subject, const char* message) {
    kvx::report(code, "CVekRvErrorClb", line, advisoryText(subject, message).c_str());
}

// The text of a string datum, up to its first zero or its end.
std::string stringOf(const RvDatum& datum) {
    const auto* bytes = static_cast<const char*>(datum.data());
    return {bytes, strnlen(bytes, datum.size())};
}

}  // namespace

CVekRvErrorClb::CVekRvErrorClb() = default;
CVekRvErrorClb::CVekRvErrorClb(const CVekRvErrorClb&) = default;
CVekRvErrorClb& CVekRvErrorClb::operator=(const CVekRvErrorClb&) = default;
CVekRvErrorClb::~CVekRvErrorClb() = default;

void CVekRvErrorClb::onData(const char* subject, RvSender*, const RvDatum& datum, RvListener*) {
    // Before the test for size 0, since a message may have size 0; it has no text.
    if (datum.type() == RVMSG_MSG) return;
    if (datum.size() == 0) {
        RREPrintError(subject, nullptr);
    } else if (datum.type() == RVMSG_STRING) {
        std::string message = stringOf(datum);
        RREPrintError(subject, message.data());
    } else {
        std::array<char, kLongestScalar + 1> buffer{};
        if (datum.getString(buffer.data(), kLongestScalar).code() == 0) {
            RREPrintError(subject, buffer.data());
        }
    }
}

void CVekRvErrorClb::RREPrintError(const char* subject, char* message) const {
    if (subject == nullptr) return;
    const std::string_view name = subject;
    if (name.starts_with("_RV.WARN.")) {
        reportAdvisory(kvx::kBusWarning, errorClbLine::Warning, subject, message);
    } else if (name.starts_with("_RV.ERROR.")) {
        reportAdvisory(kvx::kBusError, errorClbLine::Error, subject, message);
    }
}
