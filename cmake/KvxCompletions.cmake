# kvx_completions(program): has the built program write what completes it in the shells, from its own
# table of options, and installs that.

function(kvx_completions program)
    set(files)
    foreach(shell file place IN ZIP_LISTS KVX_SHELLS KVX_COMPLETION_FILES KVX_COMPLETION_PLACES)
        string(REPLACE "@" ${program} file ${file})
        set(file ${CMAKE_BINARY_DIR}/completions/${file})
        add_custom_command(OUTPUT ${file}
            COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/completions
            COMMAND $<TARGET_FILE:${program}> --completion ${shell} > ${file}
            DEPENDS ${program} VERBATIM)
        install(FILES ${file} DESTINATION ${CMAKE_INSTALL_DATADIR}/${place})
        list(APPEND files ${file})
    endforeach()
    add_custom_target(${program}_completions ALL DEPENDS ${files})
endfunction()

set(KVX_SHELLS bash fish zsh)
set(KVX_COMPLETION_FILES @ @.fish _@)
set(KVX_COMPLETION_PLACES bash-completion/completions fish/vendor_completions.d zsh/site-functions)
