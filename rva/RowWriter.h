#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kvx/RowStream.h"
#include "rva/HttpAnswer.h"
#include "rva/Queries.h"

namespace kvx::rva {

/// The form of an answer's rows.
class RowWriter {
  public:
    virtual ~RowWriter() = default;
    [[nodiscard]] virtual std::string type() const = 0;
    [[nodiscard]] virtual std::string begin() { return {}; }
    /// Nothing when the row has no place in this form.
    [[nodiscard]] virtual std::optional<std::string> row(const Record& record) = 0;
    /// After the last row.
    [[nodiscard]] virtual std::string end(const std::string& totals) = 0;
    /// The same of an answer that breaks off, as JSON `{"error":...}`; nothing when this form
    /// cannot say so. Any thread.
    [[nodiscard]] virtual std::optional<std::string> error(const std::string& error) const = 0;
};

[[nodiscard]] std::unique_ptr<RowWriter> makeRowWriter(const Query& query);

/// The error of a question, and its status before the first row.
[[nodiscard]] HttpReply errorReplyOf(const QueryError& error);

}  // namespace kvx::rva
