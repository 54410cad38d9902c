# Cross-compiling for 64-bit Windows with Debian's mingw-w64 compilers, POSIX thread model (the
# win32 model has no std::thread or std::mutex in GCC 12's libstdc++).
#
#   cmake --preset windows            (build-windows/)
#
# The programs run under Wine: tests/ and ctest use tools/wine_run.sh as the emulator, which
# keeps a scratch Wine prefix in the build folder.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(VELT_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${VELT_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VELT_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${VELT_MINGW_PREFIX}-windres)

# Search the target's own root for libraries and packages, the host for programs. Header-only
# packages with no target code (the JSON library) are found on the host by a path given to
# find_package (see the top-level CMakeLists.txt).
set(CMAKE_FIND_ROOT_PATH /usr/${VELT_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The compiler's run-time (libstdc++, libgcc, winpthread) stays in its DLLs, copied next to the
# programs (cmake/windows_runtime.cmake): linked statically, every one of our DLLs would carry
# its own copy of the standard library, with its own std::cout and its own thread-local state.

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../tools/wine_run.sh)
