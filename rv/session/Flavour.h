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

/// The process's flavour and link properties, handed in and out as copies. Any thread. May throw
/// `std::bad_alloc`; nothing has changed then.
void setProcessFlavour(int id, const char* name, const char* ticket, int key, int flags);
[[nodiscard]] FlavourRecord processFlavour();
[[nodiscard]] ipq_Properties processLinkProperties();
void setProcessLinkProperties(const ipq_Properties& properties);

}  // namespace kvx::session
