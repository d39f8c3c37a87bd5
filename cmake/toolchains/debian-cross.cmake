# What the cross compilers of Debian 12 have in common; included with `triplet` and `qemu` set.
#
# With ZEPHYRIN_SYSROOT, the root of a system of the target's processor, the host can be built as well (its libraries are
# taken from there alone) and its tests run in qemu. The plug-in needs neither.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

if(ZEPHYRIN_SYSROOT)
  set(CMAKE_SYSROOT ${ZEPHYRIN_SYSROOT})
  set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
  set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  set(ENV{PKG_CONFIG_LIBDIR}
      ${CMAKE_SYSROOT}/usr/lib/${triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/lib/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
  set(CMAKE_CROSSCOMPILING_EMULATOR ${qemu};-L;${CMAKE_SYSROOT})
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZEPHYRIN_SYSROOT)
