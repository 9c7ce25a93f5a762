#pragma once

#include <concepts>
#include <memory>

#include "platform/Export.h"
#include "rv/message/RvDatum.h"

class RvMsgIterator;

/// A growable message; itself a datum of type message.
///
/// A message either owns its buffer, which grows on append to exactly what is needed, or wraps one
/// that it neither frees nor changes. A message whose construction failed is inert: operations
/// report status 1 and `size()` is 0. The result of a lookup points into the message or its scratch
/// area and is valid until the next lookup, change or the destruction of the message.
class KVX_API RvMsg : public RvDatum {
  public:
    /// Owns a new, empty buffer; 0 means 1,024 bytes, 1 to 7 mean 8.
    RvMsg(unsigned long initialSize = 0);
    template <std::integral Number>
    explicit RvMsg(Number initialSize) : RvMsg(static_cast<unsigned long>(initialSize)) {}
    /// Wraps an initialised buffer, which must outlive this object.
    RvMsg(rvmsg_Msg buffer);
    /// An owned copy of exactly the other's length.
    RvMsg(const RvMsg& other);
    /// Does nothing when either side is inert, the other is not a readable message, or without
    /// memory. `other` may be nested in this message or the element of an iteration over it.
    RvMsg& operator=(const RvMsg& other);
    ~RvMsg() override;

    /// True when both are messages of the same bytes.
    bool operator==(const RvDatum& other) const override;
    virtual bool operator==(const RvMsg& other) const;

    /// Frees an owned buffer and wraps `buffer`, which must outlive its use here. When `buffer` is
    /// nested in the owned buffer, the nested message becomes the content and stays owned. Status
    /// 1, with nothing changed, when this message is inert or `buffer` is not initialised.
    RvStatus attach(rvmsg_Msg buffer);
    /// Reserves a capacity of `size` bytes. 1 for an inert message, 3 for a wrapped one, 8 without
    /// memory.
    RvStatus reserve(unsigned long size);

    /// Adds one field (`rvmsg_Append`), growing the buffer once if need be. Status 1 for an inert
    /// message, 3 for a wrapped one, {session, 20} without memory to grow and 8 when the size
    /// exceeds 32 bits. `data` is copied; name and data may lie in this message.
    RvStatus append(const char* name, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data);
    RvStatus append(const char* name, const RvDatum& datum);
    RvStatus append(const RvDatum& datum);
    RvStatus append(const char* name, short value);
    RvStatus append(const char* name, unsigned short value);
    RvStatus append(const char* name, int value);
    RvStatus append(const char* name, unsigned int value);
    /// 3 for a value that does not fit 32 bits.
    RvStatus append(const char* name, long value);
    RvStatus append(const char* name, unsigned long value);
    RvStatus append(const char* name, float value);
    RvStatus append(const char* name, double value);
    RvStatus append(const char* name, const char* text);

    /// Sets `datum` to the first field called `name`, or the field at a dotted path.
    RvStatus get(const char* name, RvDatum& datum) const;
    RvStatus get(const char* name, short& value) const;
    RvStatus get(const char* name, unsigned short& value) const;
    RvStatus get(const char* name, long& value) const;
    RvStatus get(const char* name, unsigned long& value) const;
    RvStatus get(const char* name, float& value) const;
    RvStatus get(const char* name, double& value) const;
    RvStatus get(const char* name, char* buffer, unsigned long capacity) const;
    /// `nested` then wraps the nested buffer and must not outlive this message (see `attach` when
    /// it is this message). 3 for a field that is not a message.
    RvStatus get(const char* name, RvMsg& nested) const;

    /// The length of the message in bytes, 0 when it is inert.
    rvmsg_Size size() const;

    /// Iterates over the fields. The caller owns the result, which must not outlive this message or
    /// any change to it. Null without memory.
    RvMsgIterator* newIterator() const;

  private:
    friend class RvMsgIterator;
    struct Context;

    int appendHere(const char* name, rvmsg_Type type, rvmsg_Size size, rvmsg_Data data);
    /// Borrows a nested message for an iterator; false without memory.
    bool borrowMessage(const char* name, rvmsg_Size size, rvmsg_Data buffer);
    bool isReadable() const;
    RvStatus find(const char* name, RvDatum& datum) const;
    bool copyMessage(const RvMsg& other);

    std::unique_ptr<Context> m_context;  // null: inert
};
