# Compiles the device daemon against musl's headers (Debian's musl-dev), the C
# library of access point images, so a call that only glibc declares fails the
# build here. Compile only: Debian has no musl build of libstdc++'s support
# objects nor of mbedTLS (its libmbedcrypto.a is built against glibc), so
# nothing is linked; build the daemon's static libraries and main's object:
#   cmake -S . -B build-musl -DTOVRIN_DEVICE=ON \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-musl-headers.cmake
#   cmake --build build-musl --target tovrin_daemon vk_platform_linux tovrin_cipher_mbedtls
#   make -C build-musl core/main.cpp.o
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER g++)
# Compiler checks compile a static library instead of linking a program.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

execute_process(COMMAND g++ -dumpmachine OUTPUT_VARIABLE gnu_triple OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND g++ -dumpversion OUTPUT_VARIABLE gcc_major OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND g++ -print-file-name=include OUTPUT_VARIABLE gcc_include OUTPUT_STRIP_TRAILING_WHITESPACE)
string(REPLACE "-gnu" "-musl" musl_triple "${gnu_triple}")
set(musl_include /usr/include/${musl_triple})
if(NOT EXISTS ${musl_include}/stdio.h)
  message(FATAL_ERROR "musl's headers not found in ${musl_include} (Debian: musl-dev)")
endif()

# mbedTLS's headers are in /usr/include beside glibc's; a directory holding
# only them keeps glibc's out of the search.
set(mbedtls_only ${CMAKE_BINARY_DIR}/musl-mbedtls-include)
file(MAKE_DIRECTORY ${mbedtls_only})
foreach(d mbedtls psa)
  if(EXISTS /usr/include/${d} AND NOT EXISTS ${mbedtls_only}/${d})
    file(CREATE_LINK /usr/include/${d} ${mbedtls_only}/${d} SYMBOLIC)
  endif()
endforeach()
set(MBEDTLS_INCLUDE_DIR ${mbedtls_only} CACHE PATH "mbedTLS headers, without the C library's")
# Where find_library looks for libmbedcrypto (found, though never linked here).
set(CMAKE_LIBRARY_ARCHITECTURE ${gnu_triple})

# The C library's include directories replaced by musl's, after the
# compiler's and libstdc++'s, in the order g++ -v prints. libstdc++'s
# configuration header here is glibc's and asks the C library's version with
# __GLIBC_PREREQ, which musl does not define: not glibc, so 0.
set(CMAKE_CXX_FLAGS_INIT
    "-nostdinc -isystem /usr/include/c++/${gcc_major} -isystem /usr/include/${gnu_triple}/c++/${gcc_major} \
-isystem /usr/include/c++/${gcc_major}/backward -isystem ${gcc_include} -isystem ${musl_include} \
\"-D__GLIBC_PREREQ(a,b)=0\"")
