# Cross build for 32-bit x86 with Debian's compiler. The programs run on 64-bit x86 as they are.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)

# This machine has the libraries below the compiler's own directory alone.
set(root /usr/i686-linux-gnu)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--dynamic-linker=${root}/lib/ld-linux.so.2 -Wl,-rpath,${root}/lib")

# Programs of this machine, headers and libraries of the other one.
set(CMAKE_FIND_ROOT_PATH ${root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
