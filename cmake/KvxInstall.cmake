# What `cmake --install` lays down: libraries, headers, programs, the CMake package, pkg-config.
