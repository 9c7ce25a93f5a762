#include "kvx/ServiceName.h"

#include <algorithm>
#include <cctype>

#include "mom/engine/CVekServiceToSubjectMapper.h"

namespace kvx {

namespace {

constexpr std::size_t kMostCharacters = 99;
constexpr std::string_view kSystem = "ZEMBRALIX.3.0.";

bool isNameCharacter(char one) {
    return std::isalnum(static_cast<unsigned char>(one)) != 0 || one == '_' || one == '-';
}

char inCapitals(char one) {
    return static_cast<char>(std::toupper(static_cast<unsigned char>(one)));
}

}  // namespace

Result<ServiceName> ServiceName::of(std::string_view name) {
    using Mapper = CVekServiceToSubjectMapper;
    ServiceName service;
    service.text_ = name;
    const bool hasZero = name.find('\0') != std::string_view::npos;
    if (const __serv_types type =
            hasZero ? SERV_UNKNOWN : Mapper::ServiceStringToEnum(service.text_.c_str());
        type != SERV_UNKNOWN) {
        service.text_ = Mapper::EnumToServiceString(type);
        service.query_ = Mapper::ServiceEnumToQuerySubject(type);
        service.notify_ = Mapper::ServiceEnumToNotifySubject(type);
        return service;
    }
    if (name.empty() || name.size() > kMostCharacters ||
        !std::ranges::all_of(name, isNameCharacter)) {
        return tl::unexpected(Error{Errc::InvalidArgument,
                                    "a service's name is 1 to 99 letters, digits, _ and -",
                                    "service '" + service.text_ + "'"});
    }
    std::string capitals(name);
    std::ranges::transform(capitals, capitals.begin(), inCapitals);
    service.query_ = std::string(kSystem) + capitals + ".QUERY";
    service.notify_ = std::string(kSystem) + capitals + ".NOTIFY";
    return service;
}

}  // namespace kvx
