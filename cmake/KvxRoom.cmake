# A room is one folder of the tree. It becomes an object library, for the shared libraries, and a
# static library, by which tests, fuzz targets and the daemon reach symbols that the shared libraries
# hide.

# kvx_room(NAME SOURCES file... DEPENDS room... LINKS target...)
#   DEPENDS  other rooms that this one depends on
#   LINKS    libraries from outside the project
function(kvx_room name)
    cmake_parse_arguments(PARSE_ARGV 1 ROOM "" "" "SOURCES;DEPENDS;LINKS")
    list(TRANSFORM ROOM_DEPENDS PREPEND kvx_)
    if(NOT ROOM_SOURCES)
        add_library(kvx_${name} INTERFACE)
        target_link_libraries(kvx_${name} INTERFACE kvx_options ${ROOM_DEPENDS} ${ROOM_LINKS})
        set_property(GLOBAL PROPERTY kvx_room_objects_${name} "")
        return()
    endif()
    add_library(kvx_${name}_objects OBJECT ${ROOM_SOURCES})
    target_link_libraries(kvx_${name}_objects PUBLIC kvx_options ${ROOM_LINKS})
    add_library(kvx_${name} STATIC $<TARGET_OBJECTS:kvx_${name}_objects>)
    set_target_properties(kvx_${name} PROPERTIES LINKER_LANGUAGE CXX)
    target_link_libraries(kvx_${name} PUBLIC kvx_options ${ROOM_DEPENDS} ${ROOM_LINKS})
    set_property(GLOBAL PROPERTY kvx_room_objects_${name} $<TARGET_OBJECTS:kvx_${name}_objects>)
endfunction()

# kvx_shared_library(KVXName ALIAS short ROOMS room... USES target... LINKS target...)
#   ROOMS  the rooms of the library
#   USES   libraries of this project that it depends on
#   LINKS  private libraries from outside the project
function(kvx_shared_library name)
    cmake_parse_arguments(PARSE_ARGV 1 LIB "" "ALIAS" "ROOMS;USES;LINKS")
    set(objects)
    foreach(room IN LISTS LIB_ROOMS)
        get_property(room_objects GLOBAL PROPERTY kvx_room_objects_${room})
        list(APPEND objects ${room_objects})
    endforeach()
    add_library(${name} SHARED ${objects})
    add_library(KVXMOM::${LIB_ALIAS} ALIAS ${name})
    set_target_properties(${name} PROPERTIES
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
        EXPORT_NAME ${LIB_ALIAS} LINKER_LANGUAGE CXX)
    target_include_directories(${name} INTERFACE
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/lib>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/kvxmom>)
    target_compile_features(${name} INTERFACE cxx_std_20)
    target_link_libraries(${name} PUBLIC ${LIB_USES} PRIVATE $<BUILD_INTERFACE:kvx_options>
                          ${LIB_LINKS})
endfunction()
