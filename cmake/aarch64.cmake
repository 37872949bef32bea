# Builds for arm64 with Debian's cross compiler and the libraries that packaging/make_arm64_root.sh has unpacked.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/arm64-root ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()
