# What `cmake --install` installs: libraries, headers, programs, the CMake package, pkg-config.

include(CMakePackageConfigHelpers)

set(KVX_INSTALL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/kvxmom)
set(KVX_INSTALL_PACKAGE ${CMAKE_INSTALL_LIBDIR}/cmake/KVXMOM)

install(TARGETS KVXFoundation KVXRv KVXMOM KVXClient EXPORT KVXMOMTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS rvd rvbridge kvx rva RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(KVX_BUILD_EXAMPLES)
    install(TARGETS modeld RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# Headers for users: the umbrellas and what they include, directly or not. All others are internal.
include(KvxPublicHeaders)
kvx_public_headers(public_headers ${KVX_UMBRELLAS})
foreach(header IN LISTS public_headers)
    cmake_path(GET header PARENT_PATH room)
    kvx_header_file(source ${header})
    install(FILES ${source} DESTINATION ${KVX_INSTALL_HEADERS}/${room})
endforeach()

install(EXPORT KVXMOMTargets NAMESPACE KVXMOM:: DESTINATION ${KVX_INSTALL_PACKAGE})
configure_package_config_file(cmake/KVXMOMConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/KVXMOMConfig.cmake INSTALL_DESTINATION ${KVX_INSTALL_PACKAGE})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/KVXMOMConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KVXMOMConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/KVXMOMConfigVersion.cmake
        DESTINATION ${KVX_INSTALL_PACKAGE})

# The package derives its prefix from its own path, so that an installed tree may be moved.
file(RELATIVE_PATH KVX_PREFIX_FROM_PC
     /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KVX_PREFIX_FROM_PC "${KVX_PREFIX_FROM_PC}")
configure_file(cmake/kvxmom.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kvxmom.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kvxmom.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES LICENSE README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
# Where the agent's package has them too, so that its manual page tells the truth everywhere.
install(FILES docs/http.md docs/openapi.json DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/rva)
install(FILES packaging/examples/rvbridge-nats.conf packaging/examples/rvbridge.default
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES packaging/man/rvd.1 packaging/man/rvbridge.1 packaging/man/kvx.1 packaging/man/rva.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES packaging/man/Calvorine.rvd.cfg.5 packaging/man/kvx-recording.5
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
if(KVX_BUILD_EXAMPLES)
    install(FILES packaging/man/modeld.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    install(FILES packaging/man/modeld-csv.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
endif()

install(FILES packaging/prometheus/kvxmom.rules.yml packaging/prometheus/kvxmom.tests.yml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/kvxmom/prometheus)
install(FILES packaging/grafana/kvxmom.json DESTINATION ${CMAKE_INSTALL_DATADIR}/kvxmom/grafana)

install(FILES packaging/systemd/rvd.socket packaging/systemd/rva.socket DESTINATION lib/systemd/system)
# The services contain the paths of the installed programs, known only at installation.
install(CODE "
    set(KVX_UNITS \"${PROJECT_SOURCE_DIR}/packaging/systemd\")
    set(KVX_UNITS_BUILT \"${CMAKE_CURRENT_BINARY_DIR}/systemd\")
    set(KVX_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
    include(\"${PROJECT_SOURCE_DIR}/cmake/KvxInstallUnits.cmake\")")
