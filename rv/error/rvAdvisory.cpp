#include "rv/error/rvAdvisory.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "rv/error/rvCodes.h"
#include "rv/message/rvSubject.h"

namespace {

constexpr std::size_t kSubjectTextBytes = 500;
constexpr std::size_t kMaxTextLengths =
    kSubjectTextBytes - 11;  // of class, source and name together

}  // namespace

int rv_BuildAdvisory(void* body, rvmsg_Size bodyCapacity, const char* advClass, const char* source,
                     const char* name, const char* description, void* subject,
                     unsigned subjectCapacity) {
    if (body == nullptr || advClass == nullptr || source == nullptr || name == nullptr ||
        subject == nullptr) {
        return kvx::message_code::kInvalidArgument;
    }
    if (std::strlen(advClass) + std::strlen(source) + std::strlen(name) > kMaxTextLengths) {
        return kvx::message_code::kInvalidArgument;
    }
    char text[kSubjectTextBytes];
    std::snprintf(text, sizeof text, "%s.%s.%s.%s", kvx::advisory::kPrefix, advClass, source, name);
    std::uint8_t encoded[kvx::kMaxSubjectBytes];  // the texts may lie in `subject`
    const unsigned capacity = std::min(subjectCapacity, kvx::kMaxSubjectBytes);
    const int length = rvSubject_FromText(encoded, capacity, text);
    if (length < 0) return kvx::message_code::kInvalidArgument;
    const int result =
        rvmsg_AppendAdvisoryFields(body, bodyCapacity, advClass, source, name, description);
    if (result == kvx::message_code::kOk) {
        std::memcpy(subject, encoded, static_cast<std::size_t>(length));
    }
    return result;
}

int rv_BuildAppAdvisory(void* body, rvmsg_Size bodyCapacity, const char* advClass,
                        const char* source, const char* name, const char* description,
                        void* subject, unsigned subjectCapacity) {
    if (source != nullptr && source == std::string_view(kvx::advisory::kSystem)) {
        return kvx::message_code::kInvalidArgument;
    }
    return rv_BuildAdvisory(body, bodyCapacity, advClass, source, name, description, subject,
                            subjectCapacity);
}

bool kvx::advisory::isSystemSubject(SubjectView subject) {
    if (subject.count() < 3 || subject.first() != kPrefix || subject[2] != kSystem) return false;
    const std::string_view advClass = subject[1];
    return advClass == kInfo || advClass == kWarn || advClass == kError;
}

bool kvx::advisory::isReportable(SubjectView subject) {
    if (subject.count() < 2 || subject.first() != kPrefix) return false;
    const std::string_view advClass = subject[1];
    return advClass == kWarn || advClass == kError;
}
