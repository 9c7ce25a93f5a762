# The shared libraries, each from its rooms, and `kvx_mom`: all rooms of the middleware as one static
# library, since they depend on one another. Tests link it to reach symbols that the shared libraries
# hide.

find_package(ZLIB REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(DEFLATE REQUIRED IMPORTED_TARGET libdeflate)
find_package(tl-expected REQUIRED)

# An undefined symbol fails here, not in a user's program.
if(NOT KVX_SANITIZE)
    set(no_undefined -Wl,-z,defs)
endif()

set(KVX_RV_ROOMS rv_error rv_message rv_event rv_wire rv_recording rv_link rv_session rv_object rv_ft)
set(KVX_MOM_ROOMS mom_config mom_net mom_engine mom_transport mom_timed mom_signal)

add_library(kvx_mom STATIC)
set_target_properties(kvx_mom PROPERTIES LINKER_LANGUAGE CXX)
foreach(room IN LISTS KVX_MOM_ROOMS)
    get_property(room_objects GLOBAL PROPERTY kvx_room_objects_${room})
    target_sources(kvx_mom PRIVATE ${room_objects})
endforeach()
target_link_libraries(kvx_mom PUBLIC
    kvx_options kvx_foundation kvx_rv_object kvx_rv_ft kvx_rv_session kvx_platform ZLIB::ZLIB PkgConfig::DEFLATE)

kvx_shared_library(KVXFoundation ALIAS foundation ROOMS platform foundation LINKS ${no_undefined})
kvx_shared_library(KVXRv ALIAS rv ROOMS ${KVX_RV_ROOMS} USES KVXFoundation
    LINKS ${no_undefined})
kvx_shared_library(KVXMOM ALIAS mom ROOMS ${KVX_MOM_ROOMS} USES KVXRv KVXFoundation
    LINKS ZLIB::ZLIB PkgConfig::DEFLATE ${no_undefined})
kvx_shared_library(KVXClient ALIAS kvx ROOMS kvx USES KVXMOM tl::expected LINKS ${no_undefined})
