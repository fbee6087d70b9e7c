# Debian packages through CPack, one per install component (scripts/package.sh
# builds them):
#   programs     qs-tools          the programs and their manual pages
#   runtime      libqscommon<N>    the shared library (N: its soname's version)
#   development  libqscommon-dev   headers, static library, .so link, CMake
#                                  package, pkg-config file
# Dependencies on other packages are found, not written down: dpkg-shlibdeps
# reads them from the binaries, the development package needs the runtime
# package of the same version, and the development packages whose headers and
# libraries its own files refer to are asked of dpkg.
include(GNUInstallDirs)

set(QS_PACKAGE_MAINTAINER "qs developers <qs-devel@example.org>" CACHE STRING
    "Maintainer field of the Debian packages")
set(QS_PACKAGE_HOMEPAGE "https://qs.example.org/" CACHE STRING
    "Homepage field of the Debian packages")

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME qs-tools)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqscommon${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqscommon-dev)

# The package that installed `file` on this machine, or nothing.
function(qs_deb_owner file out)
    set(${out} "" PARENT_SCOPE)
    if(NOT file)
        return()
    endif()
    execute_process(COMMAND dpkg-query -S ${file} OUTPUT_VARIABLE owner ERROR_QUIET
                    RESULT_VARIABLE status)
    # "libtirpc-dev:amd64: /usr/include/tirpc/rpc/rpc.h"
    if(status EQUAL 0 AND owner MATCHES "^([^:, ]+)")
        set(${out} ${CMAKE_MATCH_1} PARENT_SCOPE)
    endif()
endfunction()

# What the installed headers include (libtirpc's) and what a static link of
# the library needs besides (libcrypt).
find_library(QS_CRYPT_LIBRARY crypt)
find_file(QS_TIRPC_HEADER rpc/rpc.h PATHS ${QS_TIRPC_INCLUDE_DIRS} NO_DEFAULT_PATH)
set(dev_depends "")
foreach(file IN ITEMS ${QS_TIRPC_HEADER} ${QS_CRYPT_LIBRARY})
    qs_deb_owner(${file} owner)
    if(NOT owner)
        message(NOTICE "-- packages: no Debian package owns ${file}; "
                       "libqscommon-dev will not depend on it")
        continue()
    endif()
    list(APPEND dev_depends ${owner})
endforeach()
list(REMOVE_DUPLICATES dev_depends)
list(JOIN dev_depends ", " CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS)

# Every package carries its copyright file and a changelog, as Debian's tools
# expect; only the packages install them (EXCLUDE_FROM_ALL keeps them out of a
# plain `cmake --install`).  The changelog's date is SOURCE_DATE_EPOCH's when
# set (scripts/package.sh sets the last commit's), so that the same sources
# give the same packages.
string(TIMESTAMP changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(changelog ${CMAKE_BINARY_DIR}/packaging/changelog)
file(WRITE ${changelog}
"qs (${PROJECT_VERSION}) unstable; urgency=medium

  * Version ${PROJECT_VERSION}, packaged from the source tree.  The history of
    the project is its version control log.

 -- ${QS_PACKAGE_MAINTAINER}  ${changelog_date}
")
execute_process(COMMAND gzip -9nf ${changelog})
foreach(component IN ITEMS programs runtime development)
    string(TOUPPER ${component} upper)
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright ${changelog}.gz
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
            COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qs)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${QS_PACKAGE_MAINTAINER})
set(CPACK_PACKAGE_HOMEPAGE_URL ${QS_PACKAGE_HOMEPAGE})
set(CPACK_COMPONENTS_ALL programs runtime development)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# shlibs: a program built against this version runs with any later one of
# the same soname.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PROGRAMS_DESCRIPTION
"process supervisor, binary log reader and NFS command-line client
watcher starts one program and starts it again when it dies abnormally, a
bounded number of times with a fixed pause in between.  It forwards SIGINT
and SIGHUP to the program and stops it in two stages when it is itself
terminated.
.
qslog prints, filters and follows the binary, circular log files that the
watcher and every other program built on libqscommon write.
.
qsnfs lists, reads, writes, creates, renames, links and deletes files on NFS
version 3 servers from the command line, without mounting them.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The dynamic loader's cache is brought up to date by dpkg's trigger, once
# for all the packages of a run.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"logging, platform layer and NFS client library
A logging library that writes binary, memory-mapped, circular log files
shared by many processes; a Windows-style system interface on POSIX with a
file object; a user-space NFS version 3 client; buffers, allocators, strings
and date-times.
.
This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"logging, platform layer and NFS client library (development files)
A logging library that writes binary, memory-mapped, circular log files
shared by many processes; a Windows-style system interface on POSIX with a
file object; a user-space NFS version 3 client; buffers, allocators, strings
and date-times.
.
This package holds the headers, the static library, the CMake package
(find_package(qs)) and the pkg-config file (qscommon).")

include(CPack)
