#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace kvx::test {

/// The memory of a process that is resident, in bytes; 0 when there is no such process.
inline long long residentBytes(int pid) {
    long long total = 0;
    long long resident = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> total >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

/// How many descriptors a process has open; one of them may be this function's own.
inline long long openDescriptors(int pid) {
    std::error_code ignored;
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd", ignored);
    return std::distance(all, {});
}

/// What they are, one a line: "7 socket:[4711]".
inline std::string listOfDescriptors(int pid) {
    std::string list;
    std::error_code ignored;
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd", ignored);
    for (const auto& one : all)
        list += one.path().filename().string() + ' ' +
                std::filesystem::read_symlink(one, ignored).string() + '\n';
    return list;
}

}  // namespace kvx::test
