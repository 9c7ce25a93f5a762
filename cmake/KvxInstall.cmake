# What `cmake --install` lays down: libraries, headers, programs, the CMake package, pkg-config.

include(CMakePackageConfigHelpers)

set(KVX_INSTALL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/kvxmom)
set(KVX_INSTALL_PACKAGE ${CMAKE_INSTALL_LIBDIR}/cmake/KVXMOM)

install(TARGETS KVXFoundation KVXRv KVXMOM EXPORT KVXMOMTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS rvd kvx rva RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(KVX_BUILD_EXAMPLES)
    install(TARGETS modeld RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# Headers for users. A room's internal headers stay at home: what the public ones include is what
# is installed, and the package test compiles each of them alone from the installed tree.
install(FILES platform/Export.h DESTINATION ${KVX_INSTALL_HEADERS}/platform)
install(DIRECTORY foundation DESTINATION ${KVX_INSTALL_HEADERS} FILES_MATCHING PATTERN "*.h")
install(FILES rv/rv.h DESTINATION ${KVX_INSTALL_HEADERS}/rv)
foreach(header IN ITEMS
        message/rvmsg.h message/rvSubject.h message/RvDatum.h message/RvMsg.h
        message/RvMsgIterator.h message/SubjectView.h error/rvErrors.h error/rvAdvisory.h error/RvStatus.h
        event/rvevm.h link/ipqProperties.h session/rv_Session.h ft/rvft.h
        object/CallbackReference.h object/Text.h)
    get_filename_component(room ${header} DIRECTORY)
    install(FILES rv/${header} DESTINATION ${KVX_INSTALL_HEADERS}/rv/${room})
endforeach()
install(DIRECTORY rv/object DESTINATION ${KVX_INSTALL_HEADERS}/rv FILES_MATCHING PATTERN "Rv*.h")
install(DIRECTORY lib/mom DESTINATION ${KVX_INSTALL_HEADERS} FILES_MATCHING PATTERN "*.h")

install(EXPORT KVXMOMTargets NAMESPACE KVXMOM:: DESTINATION ${KVX_INSTALL_PACKAGE})
configure_package_config_file(cmake/KVXMOMConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/KVXMOMConfig.cmake INSTALL_DESTINATION ${KVX_INSTALL_PACKAGE})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/KVXMOMConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KVXMOMConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/KVXMOMConfigVersion.cmake
        DESTINATION ${KVX_INSTALL_PACKAGE})

# The package finds its prefix from where it lies, so that an installed tree may be moved.
file(RELATIVE_PATH KVX_PREFIX_FROM_PC
     /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KVX_PREFIX_FROM_PC "${KVX_PREFIX_FROM_PC}")
configure_file(cmake/kvxmom.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kvxmom.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kvxmom.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES LICENSE README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES packaging/man/rvd.1 packaging/man/kvx.1 packaging/man/rva.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES packaging/completions/kvx packaging/completions/rva
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES packaging/systemd/rvd.service packaging/systemd/rva.service
        DESTINATION lib/systemd/system)
