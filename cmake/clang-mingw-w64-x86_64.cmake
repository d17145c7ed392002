# A second compiler for the same target: Debian's clang building 64-bit Windows code against
# mingw-w64's headers, libstdc++ (the posix-threads flavour of g++, so that the device library's
# std::string and std::vector are the same types on both sides) and runtime libraries.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(TOOLCHAIN_PREFIX x86_64-w64-mingw32)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${TOOLCHAIN_PREFIX})
set(CMAKE_CXX_COMPILER_TARGET ${TOOLCHAIN_PREFIX})
set(CMAKE_RC_COMPILER ${TOOLCHAIN_PREFIX}-windres)
set(CMAKE_DLLTOOL ${TOOLCHAIN_PREFIX}-dlltool)

# clang does not find Debian's "12-posix" gcc folder by itself: name its C++ headers and libraries.
file(GLOB CALYTH_MINGW_GCC_DIRS /usr/lib/gcc/${TOOLCHAIN_PREFIX}/*-posix)
list(SORT CALYTH_MINGW_GCC_DIRS COMPARE NATURAL ORDER DESCENDING)
list(GET CALYTH_MINGW_GCC_DIRS 0 CALYTH_MINGW_GCC_DIR)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${CALYTH_MINGW_GCC_DIR}/include/c++
    ${CALYTH_MINGW_GCC_DIR}/include/c++/${TOOLCHAIN_PREFIX} ${CALYTH_MINGW_GCC_DIR}/include/c++/backward)
# -pthread: _REENTRANT as g++-posix defines it, and winpthread linked after libstdc++.
# -femulated-tls: g++ for mingw-w64 emulates thread-local storage, and libstdc++'s thread_local
# variables (std::call_once's) are only reachable that way.
set(CMAKE_C_FLAGS_INIT "-pthread -femulated-tls")
set(CMAKE_CXX_FLAGS_INIT "-pthread -femulated-tls")
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "-L${CALYTH_MINGW_GCC_DIR}")
endforeach()

set(CMAKE_FIND_ROOT_PATH /usr/${TOOLCHAIN_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR wine)
