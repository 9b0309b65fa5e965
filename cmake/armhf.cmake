# Debian's cross toolchain for 32-bit ARM.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(architecture_of_board armhf)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
# Notes on how older compilers passed arguments are of no use here.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
