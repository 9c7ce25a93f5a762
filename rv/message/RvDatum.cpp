// A datum borrows its data or owns it, and owns a copy of its name. The type decides how many bytes
// a copy of the data takes: a recorded size of 0 is computed for strings, messages and sealed
// blocks, and a block whose own length word exceeds the recorded size is not copied.
//
// The arguments of `set` and of an assignment may lie in memory that this datum owns. Nothing is
// freed before both name and data have been copied, and data inside owned memory is moved to the
// front of that memory instead of being copied.

#include "rv/message/RvDatum.h"

#include <cstring>
#include <optional>
#include <utility>

#include "rv/error/rvCodes.h"
#include "rv/message/WireFormat.h"

namespace {

namespace code = kvx::message_code;

// Readers of a message or sealed block trust its length word, so no fewer bytes may be copied.
bool blockBytes(rvmsg_Data block, std::uint32_t magic, std::uint32_t least, rvmsg_Size& bytes) {
    if (block == nullptr) return bytes != 0;
    if (bytes != 0 && bytes < kvx::kHeaderBytes) return false;
    const bool isBlock = kvx::hasMagic(block, magic);
    const std::uint32_t length = kvx::loadBig32(block);
    if (bytes != 0) return !isBlock || length <= bytes;
    bytes = length;
    return isBlock && length >= least;
}

// The bytes to copy: the recorded or computed size. False when a reader of the copy would overrun
// it.
bool bytesToCopy(const RvDatum& datum, rvmsg_Size& bytes) {
    bytes = datum.size();
    const rvmsg_Data data = datum.data();
    switch (datum.type()) {
        case RVMSG_STRING: {
            if (bytes != 0 || data == nullptr) return true;
            const std::size_t length = std::strlen(static_cast<const char*>(data)) + 1;
            bytes = static_cast<rvmsg_Size>(length);
            return bytes == length;
        }
        case RVMSG_MSG:
            return blockBytes(data, kvx::kMessageMagic, kvx::kHeaderBytes, bytes);
        case RVMSG_ENCRYPTED:
            return blockBytes(data, kvx::kSealedMagic, kvx::kSealedHeaderBytes, bytes);
        case RVMSG_SUBJECT:
            return bytes == 0 || data == nullptr ||
                   (bytes >= sizeof(std::uint16_t) && kvx::loadBig16(data) <= bytes);
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
    static_cast<void>(setName(name));  // without memory the datum has no name
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
    if (takeOwn(type, size, name, data)) return;
    if (!setName(name)) m_nameText = nullptr;
    releaseData();
    m_type = type;
    m_size = data == nullptr ? 0 : size;
    m_data = data;
}

// `set` for data inside the memory of this datum's name or data, which becomes the datum's data.
// False when the data lies elsewhere.
bool RvDatum::takeOwn(rvmsg_Type type, rvmsg_Size size, const char* name, rvmsg_Data data) {
    kvx::Text memory;
    std::size_t bytes = m_nameBytes;
    std::optional<std::size_t> offset = kvx::offsetIn(m_name.get(), bytes, data);
    if (offset) {
        memory = std::move(m_name);
        m_nameBytes = 0;
    } else {
        bytes = m_allocated;
        offset = kvx::offsetIn(m_data, bytes, data);
        if (!offset) return false;
        memory.reset(static_cast<char*>(const_cast<void*>(m_data)));  // owned, never constant
        m_borrowed = 1;
    }
    if (!setName(name)) m_nameText = nullptr;
    std::memmove(memory.get(), memory.get() + *offset, bytes - *offset);
    adopt(type, size, memory.release(), static_cast<rvmsg_Size>(bytes));
    return true;
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

bool RvDatum::growTo(rvmsg_Size bytes) {
    void* const grown = std::realloc(const_cast<void*>(m_data), bytes);  // owned, never constant
    if (grown == nullptr) return false;
    m_data = grown;
    m_allocated = bytes;
    return true;
}

// The data is copied first, never over the name of `other`, then the name.
void RvDatum::copyFrom(const RvDatum& other) {
    rvmsg_Size bytes = 0;
    bool isWhole = bytesToCopy(other, bytes);
    const bool hasData = isWhole && bytes != 0 && other.m_data != nullptr;
    const bool isReused = hasData && m_borrowed == 0 && m_size >= bytes && m_allocated >= bytes &&
                          !kvx::offsetIn(m_data, m_allocated, other.name());
    std::unique_ptr<void, kvx::FreeDeleter> fresh;
    if (isReused) {
        std::memmove(const_cast<void*>(m_data), other.m_data, bytes);  // owned, never constant
    } else if (hasData) {
        fresh.reset(std::malloc(bytes));
        isWhole = fresh != nullptr;
        if (isWhole) std::memcpy(fresh.get(), other.m_data, bytes);
    }
    if (!setName(other.name())) {
        m_nameText = nullptr;
        isWhole = false;
    }
    if (fresh != nullptr && isWhole) {
        adopt(other.m_type, other.m_size, fresh.release(), bytes);
    } else if (isReused && isWhole) {
        m_type = other.m_type;
        m_size = other.m_size;
    } else {
        releaseData();
        m_type = isWhole ? other.m_type : rvmsg_Type{RVMSG_BADDATA};
    }
}

// Leaves the datum without data, borrowing nothing.
void RvDatum::releaseData() {
    if (m_borrowed == 0) std::free(const_cast<void*>(m_data));
    m_data = nullptr;
    m_size = 0;
    m_borrowed = 1;
    m_allocated = 0;
}

// Keeps the memory of the present name where the new one fits. `name` may lie in the present one.
bool RvDatum::setName(const char* name) {
    if (name == nullptr) {
        m_nameText = nullptr;
        return true;
    }
    const std::size_t bytes = std::strlen(name) + 1;
    if (bytes > m_nameBytes) {
        kvx::Text fresh(static_cast<char*>(std::malloc(bytes)));
        if (fresh == nullptr) return false;
        std::memcpy(fresh.get(), name, bytes);
        m_name = std::move(fresh);
        m_nameBytes = bytes;
    } else {
        std::memmove(m_name.get(), name, bytes);
    }
    m_nameText = m_name.get();
    return true;
}
