#include "rv/object/RvSessionObject.h"

#include <new>

#include "rv/object/CallbackReference.h"
#include "rv/object/RvEvent.h"
#include "rv/object/SessionBlock.h"

RvSessionBlock* kvx::detail::newSessionBlock() {
    auto* block = new (std::nothrow) RvSessionBlock;
    if (block == nullptr) return nullptr;
    block->status = new (std::nothrow) RvStatus(0);
    if (block->status != nullptr) return block;
    delete block;
    return nullptr;
}

void kvx::detail::releaseBlock(RvSessionBlock* block) {
    --block->refs;
    if (block->refs >= 1 || block->owner != nullptr) return;
    freeSignals(block->abandonedSignals);
    delete block->status;
    delete block;
}

RvSessionObject::RvSessionObject(RvSessionBlock* block) : m_block(block) {
    ++m_block->refs;
    *m_block->status = RvStatus(0);
}

RvSessionObject::~RvSessionObject() {
    kvx::detail::releaseBlock(m_block);
}

RvSession* RvSessionObject::session() const {
    return m_block->owner;
}

RvEvent::RvEvent(RvSessionBlock* block, RvCallback* callback, void* closure)
    : RvSessionObject(block), m_callback(callback->m_handle), m_closure(closure) {}

RvEvent::~RvEvent() = default;

RvCallback* RvEvent::callback() const {
    return m_callback.as<RvCallback>();
}
