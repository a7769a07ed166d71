# ky_add_test(NAME SOURCES source... [LIBS library...] [TIMEOUT seconds])
#
# Adds the test program NAME and its test. The program links Google Test, the test support with its main(), and
# the listed libraries; it runs in a sandbox of its own, so that tests can run side by side without root.
set(KY_SANDBOX ${PROJECT_SOURCE_DIR}/tests/sandbox.sh)
function(ky_add_test NAME)
    cmake_parse_arguments(PARSE_ARGV 1 KY "" "TIMEOUT" "SOURCES;LIBS")
    if(KY_UNPARSED_ARGUMENTS OR NOT KY_SOURCES)
        message(FATAL_ERROR "ky_add_test(${NAME}): wrong arguments ${KY_UNPARSED_ARGUMENTS}")
    endif()
    if(NOT KY_TIMEOUT)
        set(KY_TIMEOUT 120)
    endif()
    add_executable(${NAME} ${KY_SOURCES})
    target_link_libraries(${NAME} PRIVATE kytfer_build_flags kytest_support ${KY_LIBS} GTest::gtest)
    add_test(NAME ${NAME} COMMAND ${KY_SANDBOX} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${NAME}>)
    set(environment
        "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1"
        "ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1"
        "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
    set_tests_properties(${NAME} PROPERTIES TIMEOUT ${KY_TIMEOUT} ENVIRONMENT "${environment}")
endfunction()
