#include "rv/message/RvDatum.h"

#include <cstring>
#include <utility>

#include "rv/error/rvCodes.h"
#include "rv/message/WireFormat.h"

namespace {

namespace code = kvx::message_code;

// The data's size where it was recorded as 0; 0 when it has none, nothing written for a bad header.
bool workedOutSize(const RvDatum& datum, rvmsg_Size& size) {
    size = datum.size();
    if (size != 0) return true;
    switch (datum.type()) {
        case RVMSG_STRING:
            if (datum.data() == nullptr) return true;
            size = static_cast<rvmsg_Size>(std::strlen(static_cast<const char*>(datum.data())) + 1);
            return true;
        case RVMSG_MSG:
            return rvmsg_Length(datum.data(), &size) == code::kOk;
        case RVMSG_ENCRYPTED:
            if (datum.data() == nullptr) return false;
            size = kvx::loadBig32(datum.data());
            return kvx::hasMagic(datum.data(), kvx::kSealedMagic) &&
                   size >= kvx::kSealedHeaderBytes;
        default:
            return true;
    }
}

// Reads `Wire` and widens it into the caller's variable.
template <class Wire, class Value>
RvStatus read(const RvDatum& datum, rvmsg_Type type, Value& value) {
    Wire wire{};
    const int result =
        rvmsg_Convert(type, sizeof wire, &wire, datum.type(), datum.size(), datum.data());
    if (result == code::kOk) value = wire;
    return RvStatus::message(static_cast<unsigned>(result));
}

}  // namespace

RvDatum::RvDatum(rvmsg_Type type, rvmsg_Size size, rvmsg_Data data)
    : m_type(type), m_size(size), m_data(data) {}

RvDatum::RvDatum(const char* name, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data)
    : RvDatum(type, size, data) {
    setName(name);
}

RvDatum::RvDatum(const RvDatum& other) {
    copyFrom(other);
}

RvDatum& RvDatum::operator=(const RvDatum& other) {
    if (this != &other) copyFrom(other);
    return *this;
}

RvDatum::~RvDatum() {
    releaseData();
}

bool RvDatum::operator==(const RvDatum& other) const {
    if (m_type == RVMSG_BADDATA || other.m_type == RVMSG_BADDATA) return false;
    if (m_type != other.m_type || m_size != other.m_size) return false;
    if (m_size == 0 || m_data == other.m_data) return true;
    return m_data != nullptr && other.m_data != nullptr &&
           std::memcmp(m_data, other.m_data, m_size) == 0;
}

void RvDatum::set(const char* name, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data) {
    setName(name);
    releaseData();
    m_type = type;
    m_size = data == nullptr ? 0 : size;
    m_data = data;
}

RvStatus RvDatum::getInt32(long& value) const {
    return read<std::int32_t>(*this, RVMSG_INT, value);
}

RvStatus RvDatum::getUInt32(unsigned long& value) const {
    return read<std::uint32_t>(*this, RVMSG_UINT, value);
}

RvStatus RvDatum::getInt16(short& value) const {
    return read<std::int16_t>(*this, RVMSG_INT, value);
}

RvStatus RvDatum::getUInt16(unsigned short& value) const {
    return read<std::uint16_t>(*this, RVMSG_UINT, value);
}

RvStatus RvDatum::getFloat32(float& value) const {
    return read<float>(*this, RVMSG_REAL, value);
}

RvStatus RvDatum::getFloat64(double& value) const {
    return read<double>(*this, RVMSG_REAL, value);
}

RvStatus RvDatum::getString(char* buffer, unsigned long capacity) const {
    const auto size = static_cast<rvmsg_Size>(capacity > UINT32_MAX ? UINT32_MAX : capacity);
    const int result = rvmsg_Convert(RVMSG_STRING, size, buffer, m_type, m_size, m_data);
    return RvStatus::message(static_cast<unsigned>(result));
}

void RvDatum::print(FILE* stream) const {
    rvmsg_Print(m_type, m_size, m_data, stream);
}

void RvDatum::adopt(rvmsg_Type type, rvmsg_Size size, void* data, rvmsg_Size allocated) {
    releaseData();
    m_type = type;
    m_size = size;
    m_data = data;
    m_borrowed = 0;
    m_allocated = allocated;
}

void RvDatum::copyFrom(const RvDatum& other) {
    setName(other.name());
    rvmsg_Size bytes = 0;
    const bool hasSize = workedOutSize(other, bytes);
    if (!hasSize || bytes == 0 || other.m_data == nullptr) {
        releaseData();
        m_type = hasSize ? other.m_type : rvmsg_Type{RVMSG_BADDATA};
        return;
    }
    if (m_borrowed == 0 && m_size >= bytes && m_allocated >= bytes) {
        std::memmove(const_cast<void*>(m_data), other.m_data, bytes);  // owned, never constant
        m_type = other.m_type;
        m_size = other.m_size;
        return;
    }
    void* const fresh = std::malloc(bytes);
    if (fresh == nullptr) {
        releaseData();
        m_type = RVMSG_BADDATA;
        return;
    }
    std::memcpy(fresh, other.m_data, bytes);
    adopt(other.m_type, other.m_size, fresh, bytes);
}

// Leaves the datum without data, borrowing nothing.
void RvDatum::releaseData() {
    if (m_borrowed == 0) std::free(const_cast<void*>(m_data));
    m_data = nullptr;
    m_size = 0;
    m_borrowed = 1;
    m_allocated = 0;
}

// Keeps the memory of the present name where the new one fits: walks set one name after the other.
// `name` may be the present name. A copy that cannot be made leaves the datum without a name.
void RvDatum::setName(const char* name) {
    if (name == nullptr) {
        m_nameText = nullptr;
        return;
    }
    const std::size_t bytes = std::strlen(name) + 1;
    if (bytes > m_nameBytes) {
        std::unique_ptr<char, kvx::FreeDeleter> fresh(static_cast<char*>(std::malloc(bytes)));
        if (fresh != nullptr) std::memcpy(fresh.get(), name, bytes);
        m_name = std::move(fresh);
        m_nameBytes = m_name == nullptr ? 0 : bytes;
    } else {
        std::memmove(m_name.get(), name, bytes);
    }
    m_nameText = m_name.get();
}
