# Every test case runs as its own CTest test (found by scanning the sources, so
# nothing is executed at build time) with a private, freshly emptied log
# directory: the library opens its default streams before main, and unrelated
# processes must never share a log file by accident.
include(GoogleTest)

set(QS_TEST_LOG_ROOT ${CMAKE_BINARY_DIR}/test-logs)

if(NOT TEST qs-clean-test-logs)
    # Made again here, not by the first test: two cases starting together
    # would both create it, and the library deliberately runs without logs
    # in the process that loses that race.
    add_test(NAME qs-clean-test-logs
             COMMAND sh -c "rm -rf '${QS_TEST_LOG_ROOT}' && mkdir -p '${QS_TEST_LOG_ROOT}'")
    set_tests_properties(qs-clean-test-logs PROPERTIES FIXTURES_SETUP qs-test-logs)
endif()

# qs_add_gtest(<target> SOURCES <files...> [LIBS <libs...>] [ENV <VAR=value...>]
#              [TIMEOUT <seconds>] [LABELS <labels...>] [FIXTURES <names...>]
#              [LAUNCHER <command...>])
# FIXTURES: further fixtures every case requires.  LAUNCHER: each case runs
# as `command... <test program> --gtest_filter=<case>`.
function(qs_add_gtest target)
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;ENV;LABELS;FIXTURES;LAUNCHER" ${ARGN})
    add_executable(${target} ${ARG_SOURCES})
    if(ARG_LAUNCHER)
        # add_test puts a target's emulator in front of the program.
        set_target_properties(${target} PROPERTIES CROSSCOMPILING_EMULATOR "${ARG_LAUNCHER}")
    endif()
    target_link_libraries(${target} PRIVATE CommonLib GTest::gtest GTest::gtest_main ${ARG_LIBS})
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
    gtest_add_tests(TARGET ${target} SOURCES ${ARG_SOURCES} TEST_LIST cases)
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    foreach(case IN LISTS cases)
        string(REGEX REPLACE "[^A-Za-z0-9_.-]" "_" dir "${case}")
        set_tests_properties(${case} PROPERTIES
            ENVIRONMENT "QS_LOG_DIR=${QS_TEST_LOG_ROOT}/${dir};${ARG_ENV}"
            FIXTURES_REQUIRED "qs-test-logs;${ARG_FIXTURES}"
            TIMEOUT ${ARG_TIMEOUT}
            LABELS "${ARG_LABELS}")
    endforeach()
endfunction()
