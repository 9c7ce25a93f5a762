#pragma once

#include <string>
#include <string_view>

#include "kvx/Error.h"
#include "platform/Export.h"

namespace kvx {

/// A service by its name, and the two subjects that follow from it.
///
/// The names that the system knows ("Model", in any case and with any number of leading "Vek") have
/// their subjects in its table; any other name, "Links" for instance, has
/// "ZEMBRALIX.3.0.LINKS.QUERY" and "ZEMBRALIX.3.0.LINKS.NOTIFY".
class KVX_API ServiceName {
  public:
    /// `InvalidArgument` unless the name is 1 to 99 letters, digits, "_" and "-".
    static Result<ServiceName> of(std::string_view name);

    /// As the system writes it, where it knows it; else as given.
    [[nodiscard]] const std::string& text() const { return text_; }
    /// Where its questions go, without the domain.
    [[nodiscard]] const std::string& querySubject() const { return query_; }
    /// Where its changes come, without the domain; empty for the few services that tell none.
    [[nodiscard]] const std::string& notifySubject() const { return notify_; }

    friend bool operator==(const ServiceName&, const ServiceName&) = default;

  private:
    ServiceName() = default;

    std::string text_;
    std::string query_;
    std::string notify_;
};

}  // namespace kvx
