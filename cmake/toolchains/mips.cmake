# 32-bit MIPS, big endian.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(triplet mips-linux-gnu)
set(qemu qemu-mips)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
