# Debian's cross toolchain for 64-bit ARM.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(architecture_of_board arm64)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
