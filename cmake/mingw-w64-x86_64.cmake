# Cross build for 64-bit Windows with Debian's mingw-w64, tested under Wine.
#
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
#         -DZEP_WINDOWS_DEPS_PREFIX=<prefix from scripts/bootstrap-windows.sh> ...
#
# Libraries and packages are looked up only in the mingw sysroot and in the
# dependencies prefix, never in the host's /usr/include or /usr/lib.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(ZEP_MINGW_TRIPLE x86_64-w64-mingw32)
set(ZEP_MINGW_SYSROOT /usr/${ZEP_MINGW_TRIPLE})

# The -posix thread model: the unsuffixed compilers are the win32 model,
# whose libstdc++ has no std::thread or std::mutex.
set(CMAKE_C_COMPILER ${ZEP_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZEP_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${ZEP_MINGW_TRIPLE}-windres)

# Programs and DLLs ship alone: libgcc, libstdc++ and winpthread are linked
# in, so no MinGW runtime DLL has to travel with them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")
# Static archives only, never the import library of a DLL (Debian's
# libz-mingw-w64-dev has one for a zlib1.dll it does not even ship).
set(ZLIB_USE_STATIC_LIBS ON)
set(CMAKE_USER_MAKE_RULES_OVERRIDE "${CMAKE_CURRENT_LIST_DIR}/mingw-w64-static-libraries.cmake")

get_filename_component(_zep_repo "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(ZEP_WINDOWS_DEPS_PREFIX "${_zep_repo}/build/windows-deps/prefix" CACHE PATH
    "Static Windows libraries built by scripts/bootstrap-windows.sh")
# Each build folder gets its own Wine prefix (made on first use).
set(ZEP_WINE_PREFIX "${CMAKE_BINARY_DIR}/wineprefix" CACHE PATH
    "Wine prefix the cross-built programs run in")
# try_compile projects read this file again from a scratch folder: hand them
# the outer values so that they do not invent their own.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZEP_WINDOWS_DEPS_PREFIX ZEP_WINE_PREFIX)

list(APPEND CMAKE_FIND_ROOT_PATH "${ZEP_MINGW_SYSROOT}" "${ZEP_WINDOWS_DEPS_PREFIX}")
list(REMOVE_DUPLICATES CMAKE_FIND_ROOT_PATH)
list(APPEND CMAKE_PREFIX_PATH "${ZEP_WINDOWS_DEPS_PREFIX}")
list(REMOVE_DUPLICATES CMAKE_PREFIX_PATH)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)   # build tools run on the host
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_FIND_USE_PACKAGE_REGISTRY OFF)
set(CMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY OFF)

# pkg-config (libzip.pc, zlib.pc) sees the same two places only.
set(ENV{PKG_CONFIG_LIBDIR}
    "${ZEP_WINDOWS_DEPS_PREFIX}/lib/pkgconfig:${ZEP_MINGW_SYSROOT}/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# ctest, gtest_discover_tests and try_run start Windows programs under Wine.
set(CMAKE_CROSSCOMPILING_EMULATOR "${_zep_repo}/scripts/wine-run.sh;--prefix;${ZEP_WINE_PREFIX}")
