# 32-bit ARM with a floating-point unit, little endian.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(triplet arm-linux-gnueabihf)
set(qemu qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
# The compiler would note where objects of its version 6 would not fit.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
