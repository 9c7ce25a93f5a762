#pragma once

#include <memory>

#include "platform/Export.h"

namespace kvx {

/// Claims the process's shared event manager, which only one thread may use, for the calling
/// thread. Any thread.
///
/// Returns a token that holds the claim, or null while another owner has a claim of another thread.
/// A later claim of one owner moves its earlier ones to its thread.
KVX_API std::shared_ptr<const void> claimLoopThread(const void* owner);

}  // namespace kvx
