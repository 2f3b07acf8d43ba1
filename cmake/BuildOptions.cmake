# What every target of this project is compiled with; link it PRIVATE.

# Can be lifted for one run with `cmake --compile-no-warning-as-error`.
if(NOT DEFINED CMAKE_COMPILE_WARNING_AS_ERROR)
    set(CMAKE_COMPILE_WARNING_AS_ERROR ON)
endif()

add_library(nandsmith_build_options INTERFACE)

# An assertion is part of an interface here, so it stays live in every build type.
target_compile_options(nandsmith_build_options INTERFACE -UNDEBUG)

if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    target_compile_options(
        nandsmith_build_options INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    )
endif()

# gcc 12 takes plain operations on std::string for overlapping copies (its bug 105329); later ones do not.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(nandsmith_build_options INTERFACE -Wno-restrict)
endif()
