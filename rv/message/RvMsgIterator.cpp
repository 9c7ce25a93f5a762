#include "rv/message/RvMsgIterator.h"

#include "rv/message/WireFormat.h"

RvMsgIterator::RvMsgIterator(const RvMsg& message)
    : m_buffer(message.size() == 0 ? nullptr : message.data()),
      m_message(static_cast<rvmsg_Msg>(nullptr)) {}

RvMsgIterator::~RvMsgIterator() = default;

void RvMsgIterator::reset() {
    if (m_buffer == nullptr) return;
    const auto* const first = static_cast<const unsigned char*>(m_buffer);
    m_position = first + kvx::kHeaderBytes;
    m_end = first + kvx::loadBig32(first) - 1;
}

const RvDatum* RvMsgIterator::next() {
    if (m_position == nullptr) reset();
    if (m_position >= m_end) return nullptr;
    kvx::FieldCursor cursor(m_position, m_end + 1);
    kvx::WireField field;
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
    if (cursor.next(field) != kvx::FieldCursor::Step::kField ||
        !kvx::decodeField(field, m_scratch, size, data)) {
        m_position = m_end;
        return nullptr;
    }
    m_position = cursor.position();
    if (field.type == RVMSG_MSG) {
        if (kvx::hasMagic(data, kvx::kMessageMagic) &&
            m_message.borrowMessage(field.name, size, data)) {
            return &m_message;
        }
        m_position = m_end;
        return nullptr;
    }
    m_datum.borrow(field.name, field.type, size, data);
    return &m_datum;
}
