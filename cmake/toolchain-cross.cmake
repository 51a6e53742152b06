# Shared by the per-architecture toolchain files: a Debian cross compiler, the
# target's multiarch libraries, and the tests run under qemu-user. binfmt_misc
# is not assumed, so ctest calls the emulator itself; "-L /" makes it use the
# multiarch loader that matches libssl3:ARCH (the cross compiler's own C
# library under /usr/TRIPLE is a different build and must not be mixed in).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${TOVRIN_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TOVRIN_TRIPLE}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${TOVRIN_TRIPLE} /usr/lib/${TOVRIN_TRIPLE} /usr/include/${TOVRIN_TRIPLE})
set(CMAKE_LIBRARY_ARCHITECTURE ${TOVRIN_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(CMAKE_CROSSCOMPILING_EMULATOR "${TOVRIN_QEMU};-L;/")
# Tests are listed by running the binaries under the emulator when ctest runs,
# not at build time.
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)
