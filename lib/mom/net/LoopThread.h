#pragma once

#include <memory>

namespace kvx {

/// Claims the process's shared event manager, which one thread uses at a time, for the calling
/// thread. Any thread.
///
/// Returns a token that gives the claim back when it dies, or null while anybody but `owner` holds
/// a claim of another thread. A later claim of one owner moves its earlier ones to its thread.
std::shared_ptr<const void> claimLoopThread(const void* owner);

}  // namespace kvx
