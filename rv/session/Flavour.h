#pragma once

#include <optional>
#include <string>

#include "rv/link/ipqProperties.h"
#include "rv/wire/ControlMessage.h"

/// What sessions take over from the process when they are created.
namespace kvx::session {

struct FlavourRecord {
    int id = 0;
    std::optional<std::string> name;
    std::optional<std::string> ticket;
    int key = 0;
    int flags = 0;

    /// Points into this record.
    [[nodiscard]] wire::Flavour view() const;
};

/// Copies of the process's flavour and link properties. Any thread.
[[nodiscard]] FlavourRecord processFlavour();
[[nodiscard]] ipq_Properties processLinkProperties();
void setProcessLinkProperties(const ipq_Properties& properties);

}  // namespace kvx::session
