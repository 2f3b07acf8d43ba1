# Sanitizers, coverage and fuzzing. They apply to every target, the tests included: a program that is instrumented
# in part reports false errors and misses real ones.

set(NANDSMITH_SANITIZE "" CACHE STRING "Sanitizers to build with, for example address,undefined")
option(NANDSMITH_COVERAGE "Count executed lines and branches" OFF)
option(NANDSMITH_FUZZ "Build the fuzz targets (clang only)" OFF)

set(sanitizer_options -fno-sanitize-recover=all -fno-omit-frame-pointer)

if(NANDSMITH_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "NANDSMITH_FUZZ needs clang; configure with -DCMAKE_CXX_COMPILER=clang++")
    endif()
    if(NANDSMITH_SANITIZE)
        message(FATAL_ERROR "NANDSMITH_FUZZ brings its own sanitizers; leave NANDSMITH_SANITIZE empty")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined ${sanitizer_options})
    add_link_options(-fsanitize=address,undefined)
elseif(NANDSMITH_SANITIZE)
    add_compile_options(-fsanitize=${NANDSMITH_SANITIZE} ${sanitizer_options})
    add_link_options(-fsanitize=${NANDSMITH_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # The checks that a sanitizer adds make gcc warn about paths that no run takes.
        add_compile_options(-Wno-maybe-uninitialized)
    endif()
endif()

if(NANDSMITH_COVERAGE)
    add_compile_options(--coverage -O0 -g)
    add_link_options(--coverage)
endif()
