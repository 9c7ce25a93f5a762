// A message that grows.
//
// The base datum owns the buffer; its allocated bytes are the capacity. Appended data may lie in
// the message itself, such as a field just read: `rvmsg_Append` reads it before it moves anything,
// and growing turns the pointer into an offset first.

#include "rv/message/RvMsg.h"

#include <cstring>
#include <limits>
#include <new>

#include "rv/error/rvCodes.h"
#include "rv/message/RvMsgIterator.h"
#include "rv/message/WireFormat.h"

namespace {

namespace code = kvx::message_code;

constexpr unsigned long kDefaultCapacity = 1024;
constexpr std::uint64_t kMaxCapacity = std::numeric_limits<rvmsg_Size>::max();
constexpr std::uint64_t kGrowReserve = 8;   // bytes besides the data
constexpr std::uint64_t kUnsizedData = 32;  // bytes for size 0 of other types

RvStatus messageStatus(int result) {
    return RvStatus::message(static_cast<unsigned>(result));
}

using Buffer = std::unique_ptr<void, kvx::FreeDeleter>;

Buffer allocate(std::uint64_t bytes) {
    if (bytes > kMaxCapacity) return nullptr;
    return Buffer(std::malloc(bytes));
}

bool isMessage(rvmsg_Data buffer) {
    return buffer != nullptr && kvx::hasMagic(buffer, kvx::kMessageMagic) &&
           kvx::loadBig32(buffer) >= kvx::kHeaderBytes;
}

// The capacity for the second try of an append that found no room.
std::uint64_t grownCapacity(std::uint64_t capacity, const char* name, rvmsg_Type type,
                            rvmsg_Size size, rvmsg_Data data) {
    std::uint64_t need = capacity + size + kGrowReserve;
    if (name != nullptr) need += std::strlen(name) + 1;
    if (size != 0) return need;
    switch (type) {
        case RVMSG_MSG: {
            rvmsg_Size length = 0;  // stays 0 when it is not a message, which the append refuses
            rvmsg_Length(data, &length);
            return need + length;
        }
        case RVMSG_STRING:
            return need + std::strlen(static_cast<const char*>(data)) + 1;
        default:
            return need + kUnsizedData;
    }
}

}  // namespace

struct RvMsg::Context {
    /// Buffer for the elements of a path.
    struct NamePath {
        char separator = '.';
        unsigned capacity = 16;
        unsigned used = 0;
        const char* elements[16] = {};
    };

    alignas(8) unsigned char scratch[16] = {};  // result of the latest lookup
    NamePath path;
};

RvMsg::RvMsg(unsigned long initialSize) : m_context(new (std::nothrow) Context) {
    if (initialSize == 0) initialSize = kDefaultCapacity;
    if (initialSize < kvx::kHeaderBytes) initialSize = kvx::kHeaderBytes;
    Buffer buffer = allocate(initialSize);
    if (buffer == nullptr || m_context == nullptr) {
        set(nullptr, RVMSG_MSG, 0, nullptr);
        m_context.reset();
        return;
    }
    const auto capacity = static_cast<rvmsg_Size>(initialSize);
    rvmsg_Init(buffer.get(), capacity);
    adopt(RVMSG_MSG, 0, buffer.release(), capacity);
}

RvMsg::RvMsg(rvmsg_Msg buffer) : RvDatum(RVMSG_MSG, 0, nullptr) {
    if (!isMessage(buffer)) return;
    m_context.reset(new (std::nothrow) Context);
    if (m_context != nullptr) set(nullptr, RVMSG_MSG, 0, buffer);
}

RvMsg::RvMsg(const RvMsg& other) : RvDatum(RVMSG_MSG, 0, nullptr) {
    if (!other.isReadable()) return;
    m_context.reset(new (std::nothrow) Context);
    if (m_context != nullptr && !copyMessage(other)) m_context.reset();
}

RvMsg& RvMsg::operator=(const RvMsg& other) {
    if (this != &other && m_context != nullptr && other.isReadable()) copyMessage(other);
    return *this;
}

RvMsg::~RvMsg() = default;

bool RvMsg::borrowMessage(const char* name, rvmsg_Size size, rvmsg_Data buffer) {
    if (m_context == nullptr) m_context.reset(new (std::nothrow) Context);
    if (m_context == nullptr) return false;
    borrow(name, RVMSG_MSG, size, buffer);
    return true;
}

bool RvMsg::copyMessage(const RvMsg& other) {
    const rvmsg_Size length = other.size();
    Buffer buffer = allocate(length);
    if (buffer == nullptr) return false;
    std::memcpy(buffer.get(), other.data(), length);
    if (!setName(other.name())) return false;
    adopt(RVMSG_MSG, 0, buffer.release(), length);  // last: name and data may lie in the old buffer
    return true;
}

bool RvMsg::isReadable() const {
    return m_context != nullptr && type() == RVMSG_MSG && isMessage(data());
}

rvmsg_Size RvMsg::size() const {
    return isReadable() ? kvx::loadBig32(data()) : 0;
}

bool RvMsg::operator==(const RvDatum& other) const {
    if (type() != RVMSG_MSG || other.type() != RVMSG_MSG) return false;
    const rvmsg_Size length = size();
    const rvmsg_Size otherLength = isMessage(other.data()) ? kvx::loadBig32(other.data()) : 0;
    return length == otherLength && (length == 0 || std::memcmp(data(), other.data(), length) == 0);
}

bool RvMsg::operator==(const RvMsg& other) const {
    return *this == static_cast<const RvDatum&>(other);
}

RvStatus RvMsg::attach(rvmsg_Msg buffer) {
    if (m_context == nullptr || !isMessage(buffer)) return messageStatus(code::kNotInitialized);
    set(nullptr, RVMSG_MSG, 0, buffer);
    return messageStatus(code::kOk);
}

RvStatus RvMsg::reserve(unsigned long size) {
    if (m_context == nullptr) return messageStatus(code::kNotInitialized);
    if (borrowed()) return messageStatus(code::kInvalidArgument);
    if (allocated() >= size) return messageStatus(code::kOk);
    const bool isGrown = size <= kMaxCapacity && growTo(static_cast<rvmsg_Size>(size));
    return messageStatus(isGrown ? code::kOk : code::kNoRoom);
}

RvStatus RvMsg::append(const char* name, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data) {
    if (m_context == nullptr) return messageStatus(code::kNotInitialized);
    if (borrowed()) return messageStatus(code::kInvalidArgument);
    if (!isReadable()) return messageStatus(code::kNotInitialized);
    const int result = appendHere(name, type, size, data);
    if (result != code::kNoRoom) return messageStatus(result);
    const std::uint64_t capacity = grownCapacity(allocated(), name, type, size, data);
    if (capacity > kMaxCapacity) return messageStatus(result);
    const auto nameAt = kvx::offsetIn(this->data(), allocated(), name);
    const auto dataAt = kvx::offsetIn(this->data(), allocated(), data);
    if (!growTo(static_cast<rvmsg_Size>(capacity))) {
        return {static_cast<unsigned>(kvx::session_code::kNoMemory)};
    }
    const auto* const moved = static_cast<const char*>(this->data());
    if (nameAt) name = moved + *nameAt;
    if (dataAt) data = moved + *dataAt;
    return messageStatus(appendHere(name, type, size, data));
}

int RvMsg::appendHere(const char* name, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data) {
    void* const buffer = const_cast<void*>(this->data());  // owned here, never constant
    return rvmsg_Append(buffer, allocated(), name, type, size, data);
}

RvStatus RvMsg::append(const char* name, const RvDatum& datum) {
    return append(name, datum.type(), datum.size(), datum.data());
}

RvStatus RvMsg::append(const RvDatum& datum) {
    return append(datum.name(), datum);
}

RvStatus RvMsg::append(const char* name, short value) {
    return append(name, RVMSG_INT, sizeof value, &value);
}

RvStatus RvMsg::append(const char* name, unsigned short value) {
    return append(name, RVMSG_UINT, sizeof value, &value);
}

RvStatus RvMsg::append(const char* name, int value) {
    return append(name, RVMSG_INT, sizeof value, &value);
}

RvStatus RvMsg::append(const char* name, unsigned int value) {
    return append(name, RVMSG_UINT, sizeof value, &value);
}

RvStatus RvMsg::append(const char* name, long value) {
    if (value != static_cast<int>(value)) return messageStatus(code::kInvalidArgument);
    return append(name, static_cast<int>(value));
}

RvStatus RvMsg::append(const char* name, unsigned long value) {
    if (value != static_cast<unsigned int>(value)) return messageStatus(code::kInvalidArgument);
    return append(name, static_cast<unsigned int>(value));
}

RvStatus RvMsg::append(const char* name, float value) {
    return append(name, RVMSG_REAL, sizeof value, &value);
}

RvStatus RvMsg::append(const char* name, double value) {
    return append(name, RVMSG_REAL, sizeof value, &value);
}

RvStatus RvMsg::append(const char* name, const char* text) {
    return append(name, RVMSG_STRING, 0, text);
}

RvStatus RvMsg::find(const char* name, RvDatum& datum) const {
    if (m_context == nullptr || data() == nullptr) return messageStatus(code::kNotInitialized);
    if (type() != RVMSG_MSG) return messageStatus(code::kInvalidArgument);
    rvmsg_Type foundType = RVMSG_BADDATA;
    rvmsg_Size foundSize = 0;
    rvmsg_Data found = nullptr;
    const int result = rvmsg_Get(m_context->scratch, data(), name, &foundType, &foundSize, &found);
    if (result == code::kOk) datum.set(nullptr, foundType, foundSize, found);
    return messageStatus(result);
}

RvStatus RvMsg::get(const char* name, RvDatum& datum) const {
    RvDatum found;
    const RvStatus status = find(name, found);
    if (status == 0) datum.set(name, found.type(), found.size(), found.data());
    return status;
}

RvStatus RvMsg::get(const char* name, short& value) const {
    RvDatum found;
    const RvStatus status = find(name, found);
    return status == 0 ? found.getInt16(value) : status;
}

RvStatus RvMsg::get(const char* name, unsigned short& value) const {
    RvDatum found;
    const RvStatus status = find(name, found);
    return status == 0 ? found.getUInt16(value) : status;
}

RvStatus RvMsg::get(const char* name, long& value) const {
    RvDatum found;
    const RvStatus status = find(name, found);
    return status == 0 ? found.getInt32(value) : status;
}

RvStatus RvMsg::get(const char* name, unsigned long& value) const {
    RvDatum found;
    const RvStatus status = find(name, found);
    return status == 0 ? found.getUInt32(value) : status;
}

RvStatus RvMsg::get(const char* name, float& value) const {
    RvDatum found;
    const RvStatus status = find(name, found);
    return status == 0 ? found.getFloat32(value) : status;
}

RvStatus RvMsg::get(const char* name, double& value) const {
    RvDatum found;
    const RvStatus status = find(name, found);
    return status == 0 ? found.getFloat64(value) : status;
}

RvStatus RvMsg::get(const char* name, char* buffer, unsigned long capacity) const {
    RvDatum found;
    const RvStatus status = find(name, found);
    return status == 0 ? found.getString(buffer, capacity) : status;
}

RvStatus RvMsg::get(const char* name, RvMsg& nested) const {
    RvDatum found;
    const RvStatus status = find(name, found);
    if (!(status == 0)) return status;
    if (found.type() != RVMSG_MSG) return messageStatus(code::kInvalidArgument);
    return nested.attach(const_cast<void*>(found.data()));  // wrapped messages are never written
}

RvMsgIterator* RvMsg::newIterator() const {
    return new (std::nothrow) RvMsgIterator(*this);
}
