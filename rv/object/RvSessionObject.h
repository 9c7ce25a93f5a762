#pragma once

#include "platform/Export.h"

class RvSession;
struct RvSessionBlock;

/// Base of everything that a session makes: senders and events.
///
/// The caller owns every such object; deleting it undoes what it registered. Object and session may
/// be destroyed in any order: an object whose session is gone stays valid, and its operations
/// report code 2. Loop thread only.
class KVX_API RvSessionObject {
  public:
    RvSessionObject(const RvSessionObject&) = delete;
    RvSessionObject& operator=(const RvSessionObject&) = delete;
    virtual ~RvSessionObject();

    /// The owning session, or null once it is destroyed.
    RvSession* session() const;

  protected:
    /// Shares `block` and resets its status to success.
    explicit RvSessionObject(RvSessionBlock* block);

    RvSessionBlock* m_block;
};
