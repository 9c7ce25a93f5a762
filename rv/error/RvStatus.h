#pragma once

#include "platform/Export.h"

/// The outcome of a bus operation: a category, which names the table of codes, and a code, where 0
/// is success in every category.
class KVX_API RvStatus {
  public:
    /// The tables that `text()` reads.
    enum Category : unsigned int {
        kSession = 0,       ///< session codes
        kEventManager = 2,  ///< event-manager codes
        kMessage = 3,       ///< message codes, before the shared session codes
        kMessageCore = 4,   ///< the shared session codes, before the message codes
    };

    /// A session code.
    RvStatus(unsigned int code = 0) : m_category(kSession), m_code(code) {}
    static RvStatus eventManager(unsigned int code) { return {kEventManager, code}; }
    static RvStatus message(unsigned int code) { return {kMessage, code}; }
    static RvStatus messageCore(unsigned int code) { return {kMessageCore, code}; }

    RvStatus(const RvStatus&) = default;
    RvStatus& operator=(const RvStatus&) = default;
    virtual ~RvStatus();

    /// A constant text; "" for an unknown code ("Unknown error." in the event manager's table),
    /// null for a category without a table.
    virtual const char* text() const;

    unsigned int category() const { return m_category; }
    unsigned int code() const { return m_code; }

    /// True when both codes are 0, or when codes and categories agree; the two message categories
    /// count as one.
    bool operator==(const RvStatus& other) const;
    /// True when both are 0, or for a session status with that code.
    bool operator==(unsigned int code) const;
    /// True when both are 0, or for a message status with that code.
    bool isMessage(unsigned int code) const;

  private:
    RvStatus(unsigned int category, unsigned int code) : m_category(category), m_code(code) {}

    unsigned int m_category;
    unsigned int m_code;
};
