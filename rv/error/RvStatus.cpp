#include "rv/error/RvStatus.h"

#include "rv/error/rvErrors.h"

namespace {

bool isMessageCategory(unsigned int category) {
    return category == RvStatus::kMessage || category == RvStatus::kMessageCore;
}

bool sameCategory(unsigned int a, unsigned int b) {
    return a == b || (isMessageCategory(a) && isMessageCategory(b));
}

}  // namespace

RvStatus::~RvStatus() = default;

const char* RvStatus::text() const {
    const int code = static_cast<int>(m_code);
    switch (m_category) {
        case kSession:
            return rv_ErrorText(code);
        case kEventManager:
            return rvevm_ErrorText(code);
        case kMessage:
            return rvmsg_ErrorText(code);
        case kMessageCore:
            return rvmsg_CoreErrorText(code);
        default:
            return nullptr;
    }
}

bool RvStatus::operator==(const RvStatus& other) const {
    if (m_code != other.m_code) return false;
    return m_code == 0 || sameCategory(m_category, other.m_category);
}

bool RvStatus::operator==(unsigned int code) const {
    if (m_code != code) return false;
    return code == 0 || m_category == kSession;
}

bool RvStatus::isMessage(unsigned int code) const {
    if (m_code != code) return false;
    return code == 0 || isMessageCategory(m_category);
}
