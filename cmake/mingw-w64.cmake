# Cross build for 64-bit Windows with Debian's mingw-w64 (the posix-threads
# variant, so that std::thread and std::mutex work) and zlib from
# libz-mingw-w64-dev. Programs built here run under Wine: CTest starts every
# test executable through the emulator below (scripts/wine-run.sh keeps the
# Wine prefix inside the build folder and Wine quiet and headless).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZP_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZP_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZP_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${ZP_MINGW_TRIPLET}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${ZP_MINGW_TRIPLET})
# Programs (wine, objdump, python) come from the build machine; headers and
# libraries only from the mingw root.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# zlib (libz-mingw-w64-dev): the static archive, not the DLL's import library.
set(ZLIB_USE_STATIC_LIBS ON)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run.sh)
