# Cross build for arm64 (Debian's aarch64-linux-gnu), tests under qemu-aarch64.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TOVRIN_TRIPLE aarch64-linux-gnu)
set(TOVRIN_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-cross.cmake)
