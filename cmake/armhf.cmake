# A 32-bit ARM board with hardware floating point, Debian's armhf. ZOL_SYSROOT holds the headers and libraries of the
# target; Scripts/arm.sh makes one. qemu-user runs the target's programs, and so its tests, on this machine.

set(ZOL_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/target/sysroot CACHE PATH "Root file system of the target")
get_filename_component(ZOL_SYSROOT ${ZOL_SYSROOT} ABSOLUTE)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZOL_SYSROOT)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # no notes on the change of the calling convention in GCC 7

set(CMAKE_SYSROOT ${ZOL_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ZOL_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${ZOL_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${ZOL_SYSROOT}/usr/share/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L ${ZOL_SYSROOT})
