# Writes files as C++; runs during the build: cmake -DOUTPUT=... -DROOT=... -P KvxEmbed.cmake file...
#   OUTPUT  the source that defines kvx::rva::consoleFiles()
#   ROOT    the directory that the files' paths are relative to

set(arrays)
set(entries)
set(number 0)
math(EXPR last "${CMAKE_ARGC} - 1")
set(is_file FALSE)
foreach(index RANGE ${last})
    set(file "${CMAKE_ARGV${index}}")
    if(is_file)
        file(READ "${file}" hex HEX)
        string(LENGTH "${hex}" digits)
        math(EXPR size "${digits} / 2")
        # Short literals, which the compiler joins, keep the lines short.
        string(REPEAT "." 64 line)
        string(REGEX REPLACE "(${line})" "\\1\n" lines "${hex}")
        string(REGEX REPLACE "([^\n]+)" "\"\\1\"" lines "${lines}")
        string(REGEX REPLACE "([0-9a-f][0-9a-f])" "\\\\x\\1" bytes "${lines}")
        cmake_path(RELATIVE_PATH file BASE_DIRECTORY "${ROOT}" OUTPUT_VARIABLE path)
        string(APPEND arrays "constexpr char kFile${number}[] =\n${bytes};\n")
        string(APPEND entries "    {\"${path}\", {kFile${number}, ${size}}},\n")
        math(EXPR number "${number} + 1")
    elseif(file STREQUAL "--")
        set(is_file TRUE)
    endif()
endforeach()

file(WRITE "${OUTPUT}" "// Made by cmake/KvxEmbed.cmake.
#include \"rva/ConsoleFiles.h\"

namespace kvx::rva {

namespace {

${arrays}
constexpr ConsoleFile kFiles[] = {
${entries}};

}  // namespace

std::span<const ConsoleFile> consoleFiles() {
    return kFiles;
}

}  // namespace kvx::rva
")
