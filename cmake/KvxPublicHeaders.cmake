# The public headers: those that the umbrellas include, directly or not. Paths are relative to the include
# roots.

set(KVX_UMBRELLAS foundation/foundation.h rv/rv.h mom/mom.h kvx/kvx.h)

# Sets `result` to the file of a header.
function(kvx_header_file result header)
    foreach(root IN ITEMS ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/lib)
        if(EXISTS ${root}/${header})
            set(${result} ${root}/${header} PARENT_SCOPE)
            return()
        endif()
    endforeach()
    message(FATAL_ERROR "no such header: ${header}")
endfunction()

# Sets `result` to `headers` and the headers of this project that they include, directly or not.
function(kvx_public_headers result)
    set(pending ${ARGN})
    set(found)
    while(pending)
        list(POP_FRONT pending header)
        if(header IN_LIST found)
            continue()
        endif()
        list(APPEND found ${header})
        kvx_header_file(file ${header})
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
        file(STRINGS ${file} includes REGEX "^ *# *include +\"")
        list(TRANSFORM includes REPLACE "^[^\"]*\"([^\"]+)\".*$" "\\1")
        list(APPEND pending ${includes})
    endwhile()
    list(SORT found)
    set(${result} ${found} PARENT_SCOPE)
endfunction()
