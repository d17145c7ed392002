# Cross-build for 32-bit Windows with the posix-threads flavour of mingw-w64. 32-bit applications
# load 32-bit providers (from the 32-bit system folder), so the provider is built for both.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(TOOLCHAIN_PREFIX i686-w64-mingw32)

set(CMAKE_C_COMPILER ${TOOLCHAIN_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TOOLCHAIN_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${TOOLCHAIN_PREFIX}-windres)
set(CMAKE_DLLTOOL ${TOOLCHAIN_PREFIX}-dlltool)

set(CMAKE_FIND_ROOT_PATH /usr/${TOOLCHAIN_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Wine runs 32-bit programs in its 64-bit prefixes too (Debian's wine32).
set(CMAKE_CROSSCOMPILING_EMULATOR wine)
