# The installed common library, for find_package(qs CONFIG).
#
#   find_package(qs 1.1 CONFIG REQUIRED)
#   target_link_libraries(app PRIVATE qs::common)
#
# qs::common is the shared library, or the static one when QS_USE_STATIC_LIBS
# is set before find_package (or when only that one is installed).  Both are
# also there by name: qs::common_shared and qs::common_static.  Programs
# include the headers as <qs/qsLog.h> and so on.
include(CMakeFindDependencyMacro)
find_dependency(Threads)

# libtirpc ships no CMake package; its headers sit in a directory of their
# own so that they do not clash with the C library's former copy.
if(NOT TARGET qs::tirpc)
    find_path(QS_TIRPC_INCLUDE_DIR rpc/rpc.h PATH_SUFFIXES tirpc)
    find_library(QS_TIRPC_LIBRARY tirpc)
    if(NOT QS_TIRPC_INCLUDE_DIR OR NOT QS_TIRPC_LIBRARY)
        set(qs_FOUND FALSE)
        set(qs_NOT_FOUND_MESSAGE "qs needs libtirpc's headers and library (Debian: libtirpc-dev)")
        return()
    endif()
    add_library(qs::tirpc INTERFACE IMPORTED)
    set_target_properties(qs::tirpc PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${QS_TIRPC_INCLUDE_DIR}"
        INTERFACE_LINK_LIBRARIES "${QS_TIRPC_LIBRARY}")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/qsTargets.cmake)

if(NOT TARGET qs::common)
    set(qs_common_target qs::common_shared)
    if(QS_USE_STATIC_LIBS OR NOT TARGET qs::common_shared)
        set(qs_common_target qs::common_static)
    endif()
    add_library(qs::common INTERFACE IMPORTED)
    set_target_properties(qs::common PROPERTIES INTERFACE_LINK_LIBRARIES ${qs_common_target})
    unset(qs_common_target)
endif()
