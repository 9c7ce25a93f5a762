#include "tools/bus/DaemonAnswer.h"

#include <fmt/format.h>

#include <cmath>

namespace kvx::bus {

std::uint64_t numberIn(const Json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

double realIn(const Json& object, const char* name) {
    const auto found = object.find(name);
    const double number = found != object.end() && found->is_number() ? found->get<double>() : 0;
    return std::isfinite(number) ? number : 0;
}

std::string textIn(const Json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

const Json& objectIn(const Json& object, const char* name) {
    static const Json kNone = Json::object();
    const auto found = object.find(name);
    return found != object.end() && found->is_object() ? *found : kNone;
}

const Json& rowsIn(const Json& object, const char* name) {
    static const Json kNone = Json::array();
    const auto found = object.find(name);
    return found != object.end() && found->is_array() ? *found : kNone;
}

std::string addressesIn(const Json& status) {
    std::string addresses;
    for (const auto& address : rowsIn(status, "address")) {
        if (!address.is_string()) continue;
        addresses += (addresses.empty() ? "" : ", ") + address.get<std::string>();
    }
    return addresses;
}

std::string whoIs(const Json& session) {
    const std::string name = textIn(session, "name");
    const std::string program = textIn(session, "program");
    if (!program.empty()) return fmt::format("{} [{}]", program, numberIn(session, "pid"));
    return name.empty() ? textIn(session, "address") : name;
}

}  // namespace kvx::bus
