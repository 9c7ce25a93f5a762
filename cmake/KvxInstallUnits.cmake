# Installs the systemd units; runs during `cmake --install`.
#   KVX_UNITS        where their templates are
#   KVX_UNITS_BUILT  where to write them before they are installed
#   KVX_BINDIR       the directory of the programs, absolute or below the prefix

cmake_path(ABSOLUTE_PATH KVX_BINDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
string(REPLACE "%" "%%" KVX_BINDIR "${KVX_BINDIR}")
foreach(unit IN ITEMS rvd.service rvbridge.service rva.service)
    configure_file("${KVX_UNITS}/${unit}.in" "${KVX_UNITS_BUILT}/${unit}" @ONLY)
    file(INSTALL "${KVX_UNITS_BUILT}/${unit}"
         DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
endforeach()
