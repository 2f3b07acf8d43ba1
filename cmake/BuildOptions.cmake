# What every target of this project is compiled with; link it PRIVATE.

if(CMAKE_CXX_BYTE_ORDER STREQUAL "BIG_ENDIAN")
    message(FATAL_ERROR "Big-endian hosts are refused: numbers in files are used as they lie.")
endif()

# `cmake --compile-no-warning-as-error` switches this off for one configuration.
if(NOT DEFINED CMAKE_COMPILE_WARNING_AS_ERROR)
    set(CMAKE_COMPILE_WARNING_AS_ERROR ON)
endif()

add_library(nandsmith_build_options INTERFACE)

# Assertions are part of the interfaces here, so every build type keeps them.
target_compile_options(nandsmith_build_options INTERFACE -UNDEBUG)

# Tests count what lies in memory in 64 bits. On a 32-bit host each such index would be a conversion.
set(conversion_warnings -Wconversion)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(in_tests "$<STREQUAL:$<TARGET_PROPERTY:SOURCE_DIR>,${PROJECT_SOURCE_DIR}/tests>")
    set(conversion_warnings "$<$<NOT:${in_tests}>:-Wconversion>")
endif()

if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    target_compile_options(
        nandsmith_build_options INTERFACE -Wall -Wextra -Wpedantic ${conversion_warnings} -Wshadow
    )
endif()

# An assertion names its source file. What is shipped must not depend on where it was built. A debugger needs the whole
# path, so the other build types keep it.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    target_compile_options(
        nandsmith_build_options INTERFACE $<$<CONFIG:Release>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=>
    )
endif()

# gcc 12 reports overlapping copies in plain operations on std::string (its bug 105329). Later versions do not.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(nandsmith_build_options INTERFACE -Wno-restrict)
endif()
