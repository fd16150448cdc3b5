# Cross-build for 64-bit Arm against the folder that cmake/arm64-sysroot makes:
# HTTP_CLIENT_SYSROOT, a cache or environment variable, by default build/arm64-sysroot.
# Tests run under qemu-aarch64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Compiler checks read this file in a project of their own, which sees the
# environment and no cache.
if(NOT HTTP_CLIENT_SYSROOT)
    if(DEFINED ENV{HTTP_CLIENT_SYSROOT})
        set(HTTP_CLIENT_SYSROOT $ENV{HTTP_CLIENT_SYSROOT})
    else()
        set(HTTP_CLIENT_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/arm64-sysroot)
    endif()
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES HTTP_CLIENT_SYSROOT)
get_filename_component(CMAKE_SYSROOT ${HTTP_CLIENT_SYSROOT} ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT}/usr/include)
    message(FATAL_ERROR "No sysroot in ${CMAKE_SYSROOT}: run cmake/arm64-sysroot first")
endif()

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-aarch64;-L;${CMAKE_SYSROOT}")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
