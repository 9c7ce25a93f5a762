#include "rva/Console.h"

#include <map>
#include <string>
#include <string_view>

#include "rva/ConsoleFiles.h"

namespace kvx::rva {

namespace {

std::string typeOf(std::string_view path) {
    static const std::map<std::string_view, const char*> kTypes = {
        {"html", "text/html; charset=utf-8"},
        {"css", "text/css; charset=utf-8"},
        {"js", "text/javascript; charset=utf-8"},
        {"svg", "image/svg+xml"}};
    const auto type = kTypes.find(path.substr(path.rfind('.') + 1));
    return type == kTypes.end() ? "text/plain; charset=utf-8" : type->second;
}

}  // namespace

void addConsole(HttpPages& pages) {
    for (const ConsoleFile& file : consoleFiles()) {
        const bool isPage = file.path == "index.html";
        pages.addFile(isPage ? "/" : "/console/" + std::string(file.path), typeOf(file.path),
                      std::string(file.bytes));
    }
}

}  // namespace kvx::rva
