#pragma once

#include <string>
#include <vector>

namespace kvx::tool {

/// `word` in quotes, shortened.
std::string quoted(const std::string& word);

/// "; did you mean '...'?" with the known word nearest to `word`.
std::string suggestion(const std::string& word, const std::vector<std::string>& known);

}  // namespace kvx::tool
