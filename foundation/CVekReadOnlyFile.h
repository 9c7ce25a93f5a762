#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "platform/Export.h"

enum EVekFileResult { VEK_FILE_NO_ACCESS = -1, VEK_FILE_OK = 0 };

/// A regular file opened for reading. Not thread-safe.
class KVX_API CVekReadOnlyFile {
  public:
    /// Stores the path without opening it; null is a file that does not exist. The second argument
    /// is ignored.
    explicit CVekReadOnlyFile(const char* path, bool reserved = false);

    /// -1 (`VEK_FILE_NO_ACCESS`) when the file is missing, unreadable or not a regular file.
    EVekFileResult ROFCheckAccess() const;

    /// Returns 0 when the file was opened, else -220549.
    int ROFOpen();

    /// The whole content as a new NUL-terminated text that the caller releases with `free`. Null
    /// when the file is not open, cannot be read, or is larger than 64 MiB, which is also reported.
    char* ROFReadAll() const;

  private:
    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    std::string m_path;
    std::unique_ptr<std::FILE, Closer> m_file;
};
