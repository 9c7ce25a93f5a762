# The options of every target: language level, warnings, sanitizers, include roots.

set(KVX_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")
option(KVX_COVERAGE "Instrument for line coverage" OFF)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

include(GNUInstallDirs)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib/static)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

find_package(Threads REQUIRED)

add_library(kvx_options INTERFACE)
target_include_directories(kvx_options INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/lib>)
target_compile_options(kvx_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Woverloaded-virtual -Wcast-qual -Wformat=2)
target_link_libraries(kvx_options INTERFACE Threads::Threads)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 warns of overlaps in std::string that do not exist.
    target_compile_options(kvx_options INTERFACE -Wno-restrict)
endif()

if(KVX_SANITIZE)
    # GCC's value-range warnings misfire on instrumented code; the dev and release builds keep them.
    # The lines of a stack are enough of debugging information, and a sixth faster to compile.
    target_compile_options(kvx_options INTERFACE
        -g1 -fsanitize=${KVX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all
        $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    target_link_options(kvx_options INTERFACE -fsanitize=${KVX_SANITIZE})
endif()
if(KVX_BUILD_FUZZERS)
    # The rooms report their coverage too, which guides the fuzzer.
    target_compile_options(kvx_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(KVX_COVERAGE)
    target_compile_options(kvx_options INTERFACE --coverage)
    target_link_options(kvx_options INTERFACE --coverage)
endif()
