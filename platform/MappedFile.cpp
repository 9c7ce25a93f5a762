#include "platform/MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace kvx::platform {

namespace {

constexpr std::size_t kPageBytes = 4'096;  // at most those of a page

std::string textOf(int error) {
    return std::generic_category().message(error);
}

}  // namespace

// Closes the descriptor, which a mapping does not need.
MappedFile MappedFile::mapped(int descriptor, std::size_t size, std::string& error) {
    MappedFile file;
    void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (memory == MAP_FAILED) {
        error = textOf(errno);
    } else {
        file.bytes_ = {static_cast<std::uint8_t*>(memory), size};
    }
    ::close(descriptor);
    return file;
}

// Without its space a full disk would end the process later.
MappedFile MappedFile::create(const std::string& path, std::size_t size, std::string& error) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        error = textOf(errno);
        return {};
    }
    if (const int failure = ::posix_fallocate(descriptor, 0, static_cast<off_t>(size));
        failure != 0) {
        error = textOf(failure);
        ::close(descriptor);
        ::unlink(path.c_str());
        return {};
    }
    MappedFile file = mapped(descriptor, size, error);
    // Each page costs a fault when it is written for the first time: now, not later.
    for (std::size_t at = 0; at < file.bytes_.size(); at += kPageBytes) {
        static_cast<volatile std::uint8_t*>(file.bytes_.data())[at] = 0;
    }
    return file;
}

MappedFile MappedFile::open(const std::string& path, std::string& error) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        error = textOf(errno);
        return {};
    }
    struct stat status {};
    const bool isOurs = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
                        status.st_uid == ::geteuid() && status.st_size > 0;
    if (!isOurs) {
        error = "it is no file of this user";
        ::close(descriptor);
        return {};
    }
    return mapped(descriptor, static_cast<std::size_t>(status.st_size), error);
}

MappedFile::~MappedFile() {
    if (!bytes_.empty()) ::munmap(bytes_.data(), bytes_.size());
}

MappedFile::MappedFile(MappedFile&& other) noexcept : bytes_(std::exchange(other.bytes_, {})) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
    std::swap(bytes_, other.bytes_);
    return *this;
}

}  // namespace kvx::platform
