# kestrel_test(NAME SOURCES file... LIBRARIES target...): one GoogleTest program, each of its tests
# known to ctest by class and name. With PRIVATE_HOST the program runs in tests/support/private-host,
# for tests that need the service's fixed ports and paths.
if(CMAKE_CROSSCOMPILING)
    # Debian has no GoogleTest for the board: its source package is built with the rest.
    add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
    add_subdirectory(${PROJECT_SOURCE_DIR}/tests/support/emulator)
else()
    find_package(GTest REQUIRED)
endif()
include(GoogleTest)

function(kestrel_test NAME)
    cmake_parse_arguments(ARG "PRIVATE_HOST" "" "SOURCES;LIBRARIES;ENVIRONMENT" ${ARGN})
    add_executable(${NAME} ${ARG_SOURCES})
    target_link_libraries(${NAME} PRIVATE ${ARG_LIBRARIES} GTest::gtest_main
        kestrel_warnings kestrel_sanitizers)
    if(CMAKE_CROSSCOMPILING)
        target_link_libraries(${NAME} PRIVATE foreign_exec)
    endif()
    target_include_directories(${NAME} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
    if(ARG_PRIVATE_HOST)
        set_target_properties(${NAME} PROPERTIES CROSSCOMPILING_EMULATOR
            "${PROJECT_SOURCE_DIR}/tests/support/private-host;${CMAKE_CROSSCOMPILING_EMULATOR}")
    endif()
    # Five seconds, unless told, are too few for a sanitized program's list on a machine with other work.
    gtest_discover_tests(${NAME} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT 300 ENVIRONMENT "${ARG_ENVIRONMENT}")
endfunction()
