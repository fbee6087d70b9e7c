# Installing a program: the binary and its manual page, in the `programs`
# component (the package of programs, cmake/QsPackage.cmake).
#
# Run as a script (cmake -DPAGE=in -DOUT=out.gz -DVERSION=v -P QsInstall.cmake)
# it makes the installed form of a manual page instead: the source page with
# "<program> <version>" as the header's source field, so that the installed
# page names the version of the program beside it, compressed as Debian wants
# manual pages (without a name or time stamp, so the same page gives the same
# bytes).

if(CMAKE_SCRIPT_MODE_FILE)
    file(READ ${PAGE} text)
    string(REGEX REPLACE "(\n|^)(\\.TH +[^ ]+ +[^ ]+ +\"[^\"]*\" +\")([^ \"]+)[^\"]*\""
                         "\\1\\2\\3 ${VERSION}\"" text "${text}")
    string(REGEX REPLACE "\\.gz$" "" plain ${OUT})
    file(WRITE ${plain} "${text}")
    execute_process(COMMAND gzip -9nf ${plain} RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "gzip ${plain} failed")
    endif()
    return()
endif()

include(GNUInstallDirs)
set(QS_INSTALL_SCRIPT ${CMAKE_CURRENT_LIST_FILE})

# qs_install_program(<target> <manual page>)
# The page's section is its file name's extension (watcher.1: section 1).
function(qs_install_program target page)
    install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)
    get_filename_component(name ${page} NAME)
    string(REGEX MATCH "[^.]+$" section ${name})
    set(out ${CMAKE_CURRENT_BINARY_DIR}/man/${name}.gz)
    add_custom_command(OUTPUT ${out}
        COMMAND ${CMAKE_COMMAND} -DPAGE=${CMAKE_CURRENT_SOURCE_DIR}/${page} -DOUT=${out}
                -DVERSION=${PROJECT_VERSION} -P ${QS_INSTALL_SCRIPT}
        DEPENDS ${page} ${QS_INSTALL_SCRIPT}
        COMMENT "manual page ${name}"
        VERBATIM)
    add_custom_target(${target}_manpage ALL DEPENDS ${out})
    install(FILES ${out} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT programs)
endfunction()
