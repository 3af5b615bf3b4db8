# Builds for 32-bit ARM with Debian's cross compiler, and runs what it built under qemu. scripts/test-armhf fills the
# folder with the libraries of the target.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf/sysroot ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${CMAKE_SYSROOT})

# Programs such as protoc run on this machine; all else is the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
