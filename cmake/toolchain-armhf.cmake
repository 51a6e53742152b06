# Cross build for armhf (Debian's arm-linux-gnueabihf), tests under qemu-arm.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TOVRIN_TRIPLE arm-linux-gnueabihf)
set(TOVRIN_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-cross.cmake)
