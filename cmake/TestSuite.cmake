include(GoogleTest)

# nandsmith_program_of_tests(<variable> <suite> <target>): the path at which a suite finds a program. A cross
# build with an emulator has a script there, because what a test starts does not run in the emulator of the test.
function(nandsmith_program_of_tests variable suite target)
    if(CMAKE_CROSSCOMPILING AND CMAKE_CROSSCOMPILING_EMULATOR)
        set(script "${PROJECT_BINARY_DIR}/emulated/${suite}/${target}")
        list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
        file(
            GENERATE OUTPUT "${script}"
            CONTENT "#!/bin/sh\nexec ${emulator} '$<TARGET_FILE:${target}>' \"$@\"\n"
            FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
        )
        set(${variable} "${script}" PARENT_SCOPE)
    else()
        set(${variable} "$<TARGET_FILE:${target}>" PARENT_SCOPE)
    endif()
endfunction()

# nandsmith_add_test_suite(<target> LABEL <label> SOURCES <file>... [LIBRARIES <target>...])
#
# One GoogleTest executable. ctest runs its tests one by one, under the given label. With sanitizers it runs eight parts
# of the executable instead: a process takes a tenth of a second there to start and to end, as long as most tests. Its
# sources may use
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
    nandsmith_program_of_tests(program ${target} nandsmith)
    nandsmith_program_of_tests(firmware_maker ${target} make_sample_firmware)
    nandsmith_program_of_tests(dump_maker ${target} make_sample_dump)
    target_compile_definitions(
        ${target}
        PRIVATE NANDSMITH_PROGRAM="${program}"
                MAKE_SAMPLE_FIRMWARE="${firmware_maker}"
                MAKE_SAMPLE_DUMP="${dump_maker}"
                NANDSMITH_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
                $<$<BOOL:${NANDSMITH_COVERAGE}>:NANDSMITH_COVERAGE>
    )
    add_dependencies(${target} nandsmith make_sample_firmware make_sample_dump)

    if(NANDSMITH_SANITIZE)
        set(parts 8)
        foreach(part RANGE 1 ${parts})
            math(EXPR index "${part} - 1")
            set(name "${target}.Part${part}Of${parts}")
            add_test(NAME ${name} COMMAND ${target})
            set_tests_properties(
                ${name}
                PROPERTIES LABELS "${arg_LABEL}"
                           TIMEOUT 1200
                           ENVIRONMENT "GTEST_TOTAL_SHARDS=${parts};GTEST_SHARD_INDEX=${index}"
            )
        endforeach()
        return()
    endif()
    set(seconds 300)
    if(CMAKE_CROSSCOMPILING_EMULATOR)
        set(seconds 3000)
    endif()
    gtest_discover_tests(
        ${target}
        DISCOVERY_TIMEOUT 60
        NO_PRETTY_VALUES
        PROPERTIES LABELS "${arg_LABEL}" TIMEOUT ${seconds}
    )
endfunction()
