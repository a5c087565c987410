# Builds for arm64 on another processor, with Debian's compiler and the libraries of the tree that tests/arm64/make_tree
# makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

cmake_path(SET arm64_tree NORMALIZE "${CMAKE_CURRENT_LIST_DIR}/../build/arm64-tree")
set(CMAKE_SYSROOT "${arm64_tree}")
set(CMAKE_FIND_ROOT_PATH "${arm64_tree}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${arm64_tree}")
set(ENV{PKG_CONFIG_LIBDIR} "${arm64_tree}/usr/lib/aarch64-linux-gnu/pkgconfig:${arm64_tree}/usr/share/pkgconfig")
