#pragma once

#include <array>
#include <string>

#include "kvx/Error.h"
#include "kvx/ZeroByte.h"
#include "rv/rv.h"

namespace kvx::detail {

/// Whether subjects can be qualified with `domain`; an empty one leaves them as they are.
inline Result<> checkDomain(const std::string& domain) {
    constexpr std::size_t kMostBytes = 500;
    std::array<unsigned char, kMostBytes> encoded{};
    const std::string subject = "A." + domain;
    if (domain.empty() || (!hasZero(domain) && rvSubject_FromText(encoded.data(), encoded.size(),
                                                                  subject.c_str()) >= 0)) {
        return {};
    }
    return tl::unexpected(Error{Errc::InvalidArgument, "'" + domain + "' is no domain", "open"});
}

}  // namespace kvx::detail
