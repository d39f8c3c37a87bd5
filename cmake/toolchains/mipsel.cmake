# 32-bit MIPS, little endian.
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(triplet mipsel-linux-gnu)
set(qemu qemu-mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
