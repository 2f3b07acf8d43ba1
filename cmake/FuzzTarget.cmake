# nandsmith_add_fuzz_target(<target> SOURCES <file>... [LIBRARIES <target>...])
#
# One libFuzzer executable. Its name starts with fuzz_, which is how scripts/fuzz finds it. ctest gives it a
# short run under the label fuzz.
function(nandsmith_add_fuzz_target target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES")
    add_executable(${target} ${arg_SOURCES})
    target_link_libraries(
        ${target} PRIVATE nandsmith_test_support nandsmith_build_options ${arg_LIBRARIES}
    )
    target_link_options(${target} PRIVATE -fsanitize=fuzzer)

    add_test(NAME ${target} COMMAND ${target} -runs=1000 -close_fd_mask=1)
    set_tests_properties(${target} PROPERTIES LABELS fuzz TIMEOUT 300)
endfunction()
