#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Export.h"

/// What a diagnosis of a host asks the system. Any thread.
namespace kvx::platform {

/// This process's limits of open descriptors; 0 when they are not available.
struct DescriptorLimits {
    std::uint64_t soft = 0;
    std::uint64_t hard = 0;
};
[[nodiscard]] KVX_API DescriptorLimits descriptorLimits() noexcept;

/// The number of a kernel setting such as "net/core/somaxconn", the last one when it has several;
/// nothing when there is no such setting.
[[nodiscard]] KVX_API std::optional<std::uint64_t> kernelSetting(const std::string& name);

/// The hardware clock that the kernel's monotonic clock reads, such as "tsc"; empty when unknown.
[[nodiscard]] KVX_API std::string clockSource();

/// Whether the kernel holds its wall clock for synchronised; nothing when it does not say.
[[nodiscard]] KVX_API std::optional<bool> isWallClockSynchronised() noexcept;

}  // namespace kvx::platform
