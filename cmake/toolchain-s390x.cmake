# Cross build for s390x (Debian's s390x-linux-gnu), tests under qemu-s390x.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(TOVRIN_TRIPLE s390x-linux-gnu)
set(TOVRIN_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-cross.cmake)
