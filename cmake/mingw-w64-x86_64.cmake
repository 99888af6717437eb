# Builds for 64-bit Windows on a Debian machine, and runs what was built under Wine in a prefix of this build.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Without a UTF-8 locale Wine hands programs a question mark for every letter beyond ASCII in their arguments. The
# overrides keep it from asking for Mono and Gecko, from writing file associations into the user's own desktop, and
# from starting its debugger after a crash, which would then exit with 0.
find_program(CLIPFORGE_WINE NAMES wine wine64 PATHS /usr/lib/wine)
if(CLIPFORGE_WINE)
    set(CLIPFORGE_WINE_ENVIRONMENT
        env LC_ALL=C.UTF-8 WINEPREFIX=${CMAKE_BINARY_DIR}/wineprefix WINEDEBUG=-all
        WINEDLLOVERRIDES=mscoree,mshtml,winemenubuilder.exe,winedbg.exe=)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${CLIPFORGE_WINE_ENVIRONMENT} ${CLIPFORGE_WINE})
endif()
