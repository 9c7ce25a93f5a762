#include "rv/session/Flavour.h"

#include <mutex>
#include <new>
#include <utility>

#include "rv/error/rvCodes.h"
#include "rv/link/LinkHost.h"
#include "rv/session/rv_Session.h"

namespace kvx::session {

namespace {

struct ProcessDefaults {
    std::mutex lock;
    FlavourRecord flavour;
    ipq_Properties link = link::kDefaultProperties;
};

// Never destroyed: sessions may be opened while the process ends.
ProcessDefaults& processDefaults() {
    static auto& defaults = *new ProcessDefaults;
    return defaults;
}

std::optional<std::string> copyOf(const char* text) {
    return text == nullptr ? std::nullopt : std::optional<std::string>(text);
}

const char* textOrNull(const std::optional<std::string>& text) {
    return text ? text->c_str() : nullptr;
}

}  // namespace

wire::Flavour FlavourRecord::view() const {
    return {id, textOrNull(name), textOrNull(ticket), key, flags};
}

FlavourRecord processFlavour() {
    const std::scoped_lock guard(processDefaults().lock);
    return processDefaults().flavour;
}

ipq_Properties processLinkProperties() {
    const std::scoped_lock guard(processDefaults().lock);
    return processDefaults().link;
}

void setProcessLinkProperties(const ipq_Properties& properties) {
    const std::scoped_lock guard(processDefaults().lock);
    processDefaults().link = properties;
}

void setProcessFlavour(int id, const char* name, const char* ticket, int key, int flags) {
    FlavourRecord record{id, copyOf(name), copyOf(ticket), key, flags};
    const std::scoped_lock guard(processDefaults().lock);
    processDefaults().flavour = std::move(record);
}

}  // namespace kvx::session

int rv_Flavor(int id, const char* name, const char* ticket, int key, int flags) {
    if (id == 0) return kvx::session_code::kVersionMismatch;
    try {
        kvx::session::setProcessFlavour(id, name, ticket, key, flags);
    } catch (const std::bad_alloc&) {
        return kvx::session_code::kNoMemory;
    }
    return kvx::session_code::kOk;
}
