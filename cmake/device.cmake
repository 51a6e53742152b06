# The device build (-DTOVRIN_DEVICE=ON): the daemon and tovrinctl only,
# optimised for size, unused sections dropped. The daemon links the C library
# and libcrypto and nothing else: on an access point the C++ runtime
# (libstdc++, libgcc_s) is a package of its own, about half a megabyte of
# flash. Both programs are linked without the compiler's default libraries, so
# any use of the runtime in their code fails the link instead of pulling the
# runtime back in. tovrinctl needs the C library alone.
set(TOVRIN_SIZE_FLAGS -Os -ffunction-sections -fdata-sections)
set(TOVRIN_DEVICE_DAEMON_LIBS tovrin_wire tovrin_cipher_${TOVRIN_CRYPTO} vk_platform_common vk_platform_linux tovrin_daemon tovrin)
foreach(t ${TOVRIN_DEVICE_DAEMON_LIBS})
  target_compile_options(${t} PRIVATE ${TOVRIN_SIZE_FLAGS}
    -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-asynchronous-unwind-tables)
endforeach()
foreach(t tovrinctl_core tovrinctl)
  target_compile_options(${t} PRIVATE ${TOVRIN_SIZE_FLAGS} -fno-asynchronous-unwind-tables)
endforeach()
# -lgcc is the static compiler support archive (arithmetic helpers on 32-bit
# targets), not the shared libgcc_s.
foreach(t tovrin tovrinctl)
  target_link_options(${t} PRIVATE -nodefaultlibs -Wl,--gc-sections -Wl,--as-needed)
  target_link_libraries(${t} PRIVATE c gcc)
endforeach()

# Checked at every link: the daemon may need only the C library and the crypto
# library, tovrinctl only the C library (checked where it is made, in
# tools/tovrinctl). The loader is named by PT_INTERP, not by a NEEDED entry.
find_program(TOVRIN_READELF NAMES ${CMAKE_READELF} readelf REQUIRED)
if(TOVRIN_CRYPTO STREQUAL "mbedtls")
  set(TOVRIN_CRYPTO_SONAMES "libmbedcrypto.so;libtfpsacrypto.so")  # the latter: mbedTLS 4.x
else()
  set(TOVRIN_CRYPTO_SONAMES libcrypto.so)
endif()
add_custom_command(TARGET tovrin POST_BUILD
  COMMAND ${CMAKE_COMMAND} -DREADELF=${TOVRIN_READELF} -DFILE=$<TARGET_FILE:tovrin>
          "-DALLOWED=libc.so;${TOVRIN_CRYPTO_SONAMES}" -P ${CMAKE_SOURCE_DIR}/cmake/check_needed.cmake
  VERBATIM)
