#include "foundation/CVekReadOnlyFile.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "foundation/CVekError.h"
#include "foundation/ErrorCodes.h"
#include "platform/File.h"

namespace {

// Larger files are refused: the content is held in memory as one text.
constexpr std::size_t kMostFileBytes = std::size_t{64} << 20U;
constexpr std::size_t kReadChunkBytes = std::size_t{16} << 10U;

}  // namespace

CVekReadOnlyFile::CVekReadOnlyFile(const char* path, bool /*reserved*/)
    : m_path(path == nullptr ? "" : path) {}

// Only regular files: opening a pipe could block for ever, and a device may have no end.
EVekFileResult CVekReadOnlyFile::ROFCheckAccess() const {
    std::error_code error;
    const bool isFile = std::filesystem::is_regular_file(m_path, error);
    return isFile && kvx::platform::isReadable(m_path) ? VEK_FILE_OK : VEK_FILE_NO_ACCESS;
}

int CVekReadOnlyFile::ROFOpen() {
    m_file.reset();
    if (ROFCheckAccess() == VEK_FILE_OK) m_file.reset(std::fopen(m_path.c_str(), "rbe"));
    return m_file == nullptr ? kvx::kFileUnusable : 0;
}

char* CVekReadOnlyFile::ROFReadAll() const {
    if (m_file == nullptr) return nullptr;
    std::rewind(m_file.get());
    std::string content;
    std::size_t length = 0;
    do {
        content.resize(length + kReadChunkBytes);
        length += std::fread(content.data() + length, 1, kReadChunkBytes, m_file.get());
    } while (length == content.size() && length <= kMostFileBytes);
    if (std::ferror(m_file.get()) != 0) return nullptr;
    if (length > kMostFileBytes) {
        CVekError(kvx::kFileUnusable, "CVekReadOnlyFile", 0, (m_path + " is too large").c_str());
        return nullptr;
    }
    auto* text = static_cast<char*>(std::malloc(length + 1));
    if (text == nullptr) return nullptr;
    std::memcpy(text, content.data(), length);
    text[length] = '\0';
    return text;
}
