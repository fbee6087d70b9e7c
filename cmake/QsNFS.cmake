# The NFS client's build: libtirpc (the C library's ONC RPC and XDR
# interface, no longer part of glibc) and rpcgen, which turns the protocol
# definitions in Common/CommonLib/qsNFSUtils/*.x into client stubs and XDR
# routines at build time.
#
# Sets QS_NFS_LINKS: whether programs that use the NFS client can be linked
# in this build tree.  Every NFS source, tests included, is compiled in any
# case; only a tree whose target cannot link libtirpc (a 32-bit tree on a
# machine without the i386 library) links and runs no NFS test, and says so.
#
# Run as a script (cmake -DSTUBS=file -P QsNFS.cmake) it checks a generated
# stub file instead: every stub must pass the 25-second total timeout.

if(CMAKE_SCRIPT_MODE_FILE)
    file(READ ${STUBS} text)
    string(FIND "${text}" "struct timeval TIMEOUT = { 25, 0 };" at)
    if(at EQUAL -1)
        message(FATAL_ERROR "${STUBS}: the stubs do not pass a 25-second total timeout")
    endif()
    return()
endif()

find_package(PkgConfig REQUIRED)
pkg_check_modules(QS_TIRPC QUIET libtirpc)
find_program(QS_RPCGEN rpcgen)
if(NOT QS_TIRPC_FOUND OR NOT QS_RPCGEN)
    message(FATAL_ERROR "The NFS client needs libtirpc's headers and rpcgen: run scripts/deps.sh build")
endif()

# Probed on every configure, so that a library installed since is found.
include(CheckCSourceCompiles)
unset(QS_NFS_LINKS CACHE)
set(CMAKE_REQUIRED_QUIET ON)
set(CMAKE_REQUIRED_INCLUDES ${QS_TIRPC_INCLUDE_DIRS})
set(CMAKE_REQUIRED_LIBRARIES ${QS_TIRPC_LIBRARIES})
if(QS_M32)
    set(CMAKE_REQUIRED_FLAGS -m32)
    set(CMAKE_REQUIRED_LINK_OPTIONS -m32)
endif()
check_c_source_compiles("
#include <rpc/rpc.h>
int main(void) { return clnt_create(\"localhost\", 100003, 3, \"tcp\") != 0; }"
    QS_NFS_LINKS)
unset(CMAKE_REQUIRED_QUIET)
unset(CMAKE_REQUIRED_INCLUDES)
unset(CMAKE_REQUIRED_LIBRARIES)
unset(CMAKE_REQUIRED_FLAGS)
unset(CMAKE_REQUIRED_LINK_OPTIONS)
if(NOT QS_NFS_LINKS)
    # stderr: scripts/build.sh keeps CMake's status output quiet.
    message(NOTICE "-- NFS client compiled but not linked: this target cannot link "
                   "libtirpc (${QS_TIRPC_LIBRARIES}); no NFS test is linked or run")
endif()

# libtirpc as one target, under the name the installed CMake package gives it
# too (cmake/qsConfig.cmake), so that the exported library refers to it alike.
if(NOT TARGET qs::tirpc)
    add_library(qs::tirpc INTERFACE IMPORTED)
    set_target_properties(qs::tirpc PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${QS_TIRPC_INCLUDE_DIRS}"
        INTERFACE_LINK_LIBRARIES "${QS_TIRPC_LIBRARIES}")
endif()

# qs_rpcgen(<target> <definition.x>...)
# Generates <name>.h, <name>_xdr.c and <name>_clnt.c for each definition and
# compiles them into <target>, as C.  The headers carry extern "C" and are
# included only by the library's internal headers and sources: they #define
# the protocol's procedure names, and are never installed.  Only libtirpc's
# headers are added here: the libraries made of <target> link libtirpc.
#   -M    stubs that return the transport status and decode into the caller's
#         result record (no static result shared by all threads)
#   -i 0  no inline XDR code (it stores through `register` pointers)
function(qs_rpcgen target)
    set(out ${CMAKE_CURRENT_BINARY_DIR}/rpcgen)
    file(MAKE_DIRECTORY ${out})
    set(generated_c "")
    foreach(definition IN LISTS ARGN)
        get_filename_component(name ${definition} NAME_WE)
        get_filename_component(file ${definition} NAME)
        get_filename_component(dir ${definition} DIRECTORY)
        set(h ${out}/${name}.h)
        set(xdr ${out}/${name}_xdr.c)
        set(clnt ${out}/${name}_clnt.c)
        # rpcgen names the header in its C output after the path it is given:
        # run it beside the definition so that the include is a plain name.
        # It refuses to overwrite its earlier output.
        add_custom_command(OUTPUT ${h} ${xdr} ${clnt}
            COMMAND ${CMAKE_COMMAND} -E rm -f ${h} ${xdr} ${clnt}
            COMMAND ${QS_RPCGEN} -M -i 0 -h -o ${h} ${file}
            COMMAND ${QS_RPCGEN} -M -i 0 -c -o ${xdr} ${file}
            COMMAND ${QS_RPCGEN} -M -i 0 -l -o ${clnt} ${file}
            COMMAND ${CMAKE_COMMAND} -DSTUBS=${clnt} -P ${PROJECT_SOURCE_DIR}/cmake/QsNFS.cmake
            WORKING_DIRECTORY ${dir}
            DEPENDS ${definition} ${PROJECT_SOURCE_DIR}/cmake/QsNFS.cmake
            COMMENT "rpcgen ${file}"
            VERBATIM)
        target_sources(${target} PRIVATE ${h} ${xdr} ${clnt})
        list(APPEND generated_c ${xdr} ${clnt})
    endforeach()
    # The stubs cast xdr_void to xdrproc_t, as every rpcgen stub does.
    set_source_files_properties(${generated_c} PROPERTIES COMPILE_OPTIONS -Wno-cast-function-type)
    target_include_directories(${target} PUBLIC ${out} ${QS_TIRPC_INCLUDE_DIRS})
endfunction()

# The real NFS server of the tests (tests/nfs/qsNFSServer.sh), one per build
# tree, in a network namespace named after the tree.  Tests that talk to it
# require the fixture ${QS_NFS_FIXTURE}, carry the label nfs and run through
# ${QS_NFS_RUN} (inside the server's namespace, where 127.0.0.1 is the
# server); ${QS_NFS_EXPORT} is the exported directory.
string(MD5 tree_hash "${CMAKE_BINARY_DIR}")
string(SUBSTRING "${tree_hash}" 0 10 tree_hash)
set(QS_NFS_NETNS qsnfs-${tree_hash})
set(QS_NFS_FIXTURE qs-nfs-server)
set(QS_NFS_SERVER_SCRIPT ${PROJECT_SOURCE_DIR}/tests/nfs/qsNFSServer.sh)
set(QS_NFS_STATE_DIR ${CMAKE_BINARY_DIR}/nfs-server)
set(QS_NFS_EXPORT ${QS_NFS_STATE_DIR}/export)
set(QS_NFS_RUN ${QS_NFS_SERVER_SCRIPT} run ${QS_NFS_STATE_DIR})

# qs_add_nfs_gtest(<target> <arguments of qs_add_gtest>...)
# qs_add_gtest where the NFS client links; elsewhere the sources are only
# compiled, so that such a tree still catches their compile errors.
function(qs_add_nfs_gtest target)
    if(QS_NFS_LINKS)
        qs_add_gtest(${target} ${ARGN})
        return()
    endif()
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;ENV;LABELS;FIXTURES;LAUNCHER" ${ARGN})
    add_library(${target} OBJECT ${ARG_SOURCES})
    target_link_libraries(${target} PRIVATE CommonLib GTest::gtest ${ARG_LIBS})
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
endfunction()
