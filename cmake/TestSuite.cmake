include(GoogleTest)

# nandsmith_add_test_suite(<target> LABEL <label> SOURCES <file>... [LIBRARIES <target>...])
#
# One GoogleTest executable. ctest runs its tests one by one, under the given label. Its sources may use
#   NANDSMITH_PROGRAM      path of the program
#   MAKE_SAMPLE_FIRMWARE   path of the maker of sample firmware
#   MAKE_SAMPLE_DUMP       path of the maker of chip dumps
#   NANDSMITH_SOURCE_DIR   top directory of the source tree
#   NANDSMITH_COVERAGE     defined in a coverage build
# Without a source no executable is added.
function(nandsmith_add_test_suite target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "LABEL" "SOURCES;LIBRARIES")
    if(NOT arg_SOURCES)
        message(STATUS "Tests: ${target} has no source yet")
        return()
    endif()

    add_executable(${target} ${arg_SOURCES})
    target_link_libraries(
        ${target} PRIVATE nandsmith_test_support nandsmith_build_options ${arg_LIBRARIES} GTest::gtest_main
    )
    if(TARGET GTest::gmock)
        target_link_libraries(${target} PRIVATE GTest::gmock)
    endif()
    # Compiling the tests takes longer than running them, so they get little optimisation in every build type, and
    # none where sanitizers make the code twice as long. The large headers are compiled once.
    if(NANDSMITH_SANITIZE)
        target_compile_options(${target} PRIVATE -O0)
    else()
        target_compile_options(${target} PRIVATE -O1)
    endif()
    target_precompile_headers(
        ${target} PRIVATE <gtest/gtest.h> <algorithm> <filesystem> <fstream> <random> <string> <vector>
    )
    target_compile_definitions(
        ${target}
        PRIVATE NANDSMITH_PROGRAM="$<TARGET_FILE:nandsmith>"
                MAKE_SAMPLE_FIRMWARE="$<TARGET_FILE:make_sample_firmware>"
                MAKE_SAMPLE_DUMP="$<TARGET_FILE:make_sample_dump>"
                NANDSMITH_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
                $<$<BOOL:${NANDSMITH_COVERAGE}>:NANDSMITH_COVERAGE>
    )
    add_dependencies(${target} nandsmith make_sample_firmware make_sample_dump)

    gtest_discover_tests(
        ${target}
        DISCOVERY_TIMEOUT 60
        NO_PRETTY_VALUES
        PROPERTIES LABELS "${arg_LABEL}" TIMEOUT 300
    )
endfunction()
