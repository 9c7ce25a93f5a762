#pragma once

#include <span>
#include <string_view>

namespace kvx::rva {

struct ConsoleFile {
    std::string_view path;  ///< below rva/console/
    std::string_view bytes;
};

/// The files of rva/console/. Made by the build.
std::span<const ConsoleFile> consoleFiles();

}  // namespace kvx::rva
