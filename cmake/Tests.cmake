# kestrel_test(NAME SOURCES file... LIBRARIES target...): one GoogleTest program, each of its tests
# known to ctest by class and name.
find_package(GTest REQUIRED)
include(GoogleTest)

function(kestrel_test NAME)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES;ENVIRONMENT" ${ARGN})
    add_executable(${NAME} ${ARG_SOURCES})
    target_link_libraries(${NAME} PRIVATE ${ARG_LIBRARIES} GTest::gtest_main
        kestrel_warnings kestrel_sanitizers)
    target_include_directories(${NAME} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
    gtest_discover_tests(${NAME} DISCOVERY_MODE PRE_TEST
        PROPERTIES TIMEOUT 120 ENVIRONMENT "${ARG_ENVIRONMENT}")
endfunction()
