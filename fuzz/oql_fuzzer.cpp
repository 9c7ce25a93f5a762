// Query texts: a text that parses must be translatable against a table, and an error must have a
// position inside the text or just behind it.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "examples/modeld/oql/Parse.h"
#include "examples/modeld/store/Sql.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace modeld;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto result = oql::parse(text);
    if (const auto* error = std::get_if<oql::SyntaxError>(&result)) {
        if (error->message.empty() || error->position == 0 || error->position > size + 1) {
            std::abort();
        }
        return 0;
    }
    const sql::Table table{"t", {{"a", ValueKind::Integer}, {"b", ValueKind::Text}}};
    const auto command = sql::translate(std::get<oql::Query>(result), table);
    if (const auto* refusal = std::get_if<Refusal>(&command)) {
        if (refusal->message.empty() || refusal->position > size) std::abort();
    }
    return 0;
}
