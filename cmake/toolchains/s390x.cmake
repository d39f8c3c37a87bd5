# 64-bit, big endian: no gateway has one, but Debian 12 has all libraries of the host for it.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(triplet s390x-linux-gnu)
set(qemu qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
