# This machine's processor with musl in the place of glibc. The driver of a C compiler does: the plug-in is C++ without
# the C++ library.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${CMAKE_HOST_SYSTEM_PROCESSOR})
set(CMAKE_CXX_COMPILER musl-gcc)
