# For the toolchain of architecture_of_board, whose libraries `./dev` has brought (cmake/sysroot).
get_filename_component(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${architecture_of_board}
                       ABSOLUTE)
set(CMAKE_SYSROOT ${sysroot} CACHE PATH "Libraries and headers of the board's system")
if(NOT EXISTS ${CMAKE_SYSROOT})
  message(FATAL_ERROR "no ${CMAKE_SYSROOT}; `./dev build ${architecture_of_board}` makes it")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
# Programs of the build run here, as well.
list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -L ${CMAKE_SYSROOT})
