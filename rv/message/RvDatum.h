#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "platform/Export.h"
#include "platform/Memory.h"
#include "rv/error/RvStatus.h"
#include "rv/message/rvmsg.h"

/// One typed value, with or without a name.
///
/// A datum made from (type, size, data) borrows the data, which must outlive it. A copied datum
/// owns a private copy. Every typed read returns a status of the message category: 0, or 3 when the
/// value has no conversion to the type asked for; the variable is then left as it was.
class KVX_API RvDatum {
  public:
    /// No value: type 0, size 0, no data.
    RvDatum() = default;
    RvDatum(rvmsg_Type type, rvmsg_Size size, rvmsg_Data data);
    /// The same with a copy of `name`.
    RvDatum(const char* name, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data);
    /// A private copy. Size 0 of a string, message or sealed block is computed for the copy and
    /// stays recorded as 0; a value without data keeps its type only. The copy is the empty datum
    /// when the size cannot be computed, when a message, sealed block or subject is longer than the
    /// recorded size, and without memory. `other` may refer to memory that the target of an
    /// assignment owns.
    RvDatum(const RvDatum& other);
    RvDatum& operator=(const RvDatum& other);
    virtual ~RvDatum();

    /// False when either type is 0 or the types or sizes differ; else the bytes are compared. For
    /// two messages the recorded sizes count; `RvMsg` compares their contents.
    virtual bool operator==(const RvDatum& other) const;

    /// Frees owned data and borrows `data`; null data forces size 0. `name` is copied, null clears
    /// it; without memory for the copy the datum has no name. Both may lie in memory that this
    /// datum owns: such data stays owned, moved to the front of its memory.
    void set(const char* name, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data);

    rvmsg_Type type() const { return m_type; }
    rvmsg_Size size() const { return m_size; }
    rvmsg_Data data() const { return m_data; }
    /// Null for a datum without a name. Belongs to the datum.
    const char* name() const { return m_nameText; }

    RvStatus getInt32(long& value) const;
    RvStatus getUInt32(unsigned long& value) const;
    RvStatus getInt16(short& value) const;
    RvStatus getUInt16(unsigned short& value) const;
    RvStatus getFloat32(float& value) const;
    RvStatus getFloat64(double& value) const;
    RvStatus getString(char* buffer, unsigned long capacity) const;

    /// Writes the value as text (`rvmsg_Print`); a null stream means standard output.
    void print(FILE* stream) const;

  protected:
    /// Takes ownership of `data`, `allocated` bytes from `malloc`.
    void adopt(rvmsg_Type type, rvmsg_Size size, void* data, rvmsg_Size allocated);
    /// Borrows name and data. For an iterator, whose datum is overwritten before the message may
    /// change.
    void borrow(const char* name, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data) {
        if (m_borrowed == 0) releaseData();
        m_nameText = name;
        m_type = type;
        m_size = size;
        m_data = data;
    }
    /// `name` is copied; null clears it. False without memory; the old name stays.
    [[nodiscard]] bool setName(const char* name);
    /// Grows the owned buffer to `bytes`. False without memory; nothing is changed.
    [[nodiscard]] bool growTo(rvmsg_Size bytes);
    bool borrowed() const { return m_borrowed != 0; }
    /// Bytes of the owned buffer; 0 while borrowing.
    rvmsg_Size allocated() const { return m_allocated; }

  private:
    friend class RvMsgIterator;

    bool takeOwn(rvmsg_Type type, rvmsg_Size size, const char* name, rvmsg_Data data);
    void copyFrom(const RvDatum& other);
    void releaseData();

    rvmsg_Type m_type = RVMSG_BADDATA;
    rvmsg_Size m_size = 0;
    rvmsg_Data m_data = nullptr;       // freed here unless borrowed
    const char* m_nameText = nullptr;  // in `m_name`, or borrowed
    kvx::Text m_name;
    std::int32_t m_borrowed = 1;
    rvmsg_Size m_allocated = 0;   // bytes of the owned data
    std::size_t m_nameBytes = 0;  // allocated for the name
};
