// The subjects of advisories, and building one (the operations of rv/error/rvAdvisory.h).

#include "rv/message/AdvisorySubjects.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "rv/error/rvAdvisory.h"
#include "rv/error/rvCodes.h"
#include "rv/message/rvSubject.h"
#include "rv/message/rvmsg.h"

namespace {

constexpr std::size_t kSubjectTextBytes = kvx::advisory::kSubjectCapacity;
constexpr std::size_t kMaxTextLengths =
    kSubjectTextBytes - 11;  // of class, source and name together

}  // namespace

int rv_BuildAdvisory(void* body, std::uint32_t bodyCapacity, const char* advClass,
                     const char* source, const char* name, const char* description, void* subject,
                     unsigned subjectCapacity) {
    if (body == nullptr || advClass == nullptr || source == nullptr || name == nullptr ||
        subject == nullptr) {
        return kvx::message_code::kInvalidArgument;
    }
    if (std::strlen(advClass) + std::strlen(source) + std::strlen(name) > kMaxTextLengths) {
        return kvx::message_code::kInvalidArgument;
    }
    char text[kSubjectTextBytes];
    std::snprintf(text, sizeof text, "%s.%s.%s.%s", kvx::kReservedElement.data(), advClass, source,
                  name);
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

int rv_BuildAppAdvisory(void* body, std::uint32_t bodyCapacity, const char* advClass,
                        const char* source, const char* name, const char* description,
                        void* subject, unsigned subjectCapacity) {
    if (source != nullptr && source == std::string_view(kvx::advisory::kSystem)) {
        return kvx::message_code::kInvalidArgument;
    }
    return rv_BuildAdvisory(body, bodyCapacity, advClass, source, name, description, subject,
                            subjectCapacity);
}

namespace kvx::advisory {

namespace {

bool isAlarm(std::string_view advClass) {
    return advClass == kWarn || advClass == kError;
}

bool isClass(std::string_view advClass) {
    return advClass == kInfo || isAlarm(advClass);
}

}  // namespace

bool isSystemSubject(SubjectView subject) {
    return subject.count() >= 3 && subject.first() == kReservedElement && isClass(subject[1]) &&
           subject[2] == kSystem;
}

bool coversSystemSubject(SubjectView subject) {
    const unsigned count = subject.count();
    if (count < 2 || subject.first() != kReservedElement) return false;
    if (count == 2) return subject[1] == kAnyTrailingElements;
    if (!isClass(subject[1]) && subject[1] != kAnyElement) return false;
    return subject[2] == kSystem || subject[2] == kAnyElement ||
           (count == 3 && subject[2] == kAnyTrailingElements);
}

bool isReportable(SubjectView subject) {
    return subject.count() >= 2 && subject.first() == kReservedElement && isAlarm(subject[1]);
}

}  // namespace kvx::advisory
