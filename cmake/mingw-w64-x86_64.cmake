# Cross-compiles the library as a 64-bit Windows DLL with MinGW-w64 (posix thread model) and runs
# the tests under Wine. Debian: g++-mingw-w64-x86-64-posix, wine64 (scripts/install-deps.sh
# --windows).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(MW_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${MW_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${MW_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${MW_MINGW_PREFIX}-windres)

# Target headers and libraries come from the MinGW sysroot only; programs run on the build host.
set(CMAKE_FIND_ROOT_PATH /usr/${MW_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# libstdc++ pulls in libwinpthread-1.dll unless everything is linked statically; Wine then fails
# to start the program (exit status 53), silently when its debug output is off.
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -static)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -static)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh)
