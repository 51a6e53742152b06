# The device build (-DTOVRIN_DEVICE=ON): the daemon and tovrinctl only,
# optimised for size, unused sections dropped. The daemon links the C library
# and libcrypto and nothing else: on an access point the C++ runtime
# (libstdc++, libgcc_s) is a package of its own, about half a megabyte of
# flash. It is linked without the compiler's default libraries, so any use of
# the runtime in the daemon's own code fails the link instead of pulling the
# runtime back in. tovrinctl is a tool and keeps std::string and friends: it
# still needs libstdc++.
set(TOVRIN_SIZE_FLAGS -Os -ffunction-sections -fdata-sections)
set(TOVRIN_DEVICE_DAEMON_LIBS tovrin_wire tovrin_cipher_${TOVRIN_CRYPTO} vk_platform_common vk_platform_linux tovrin_daemon tovrin)
foreach(t ${TOVRIN_DEVICE_DAEMON_LIBS})
  target_compile_options(${t} PRIVATE ${TOVRIN_SIZE_FLAGS}
    -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-asynchronous-unwind-tables)
endforeach()
foreach(t tovrinctl_core tovrinctl)
  target_compile_options(${t} PRIVATE ${TOVRIN_SIZE_FLAGS})
  target_link_options(${t} PRIVATE -Wl,--gc-sections)
endforeach()
# -lgcc is the static compiler support archive (arithmetic helpers on 32-bit
# targets), not the shared libgcc_s.
target_link_options(tovrin PRIVATE -nodefaultlibs -Wl,--gc-sections -Wl,--as-needed)
target_link_libraries(tovrin PRIVATE c gcc)

# Checked at every link: only the C library and the crypto library may be needed
# (the loader is named by PT_INTERP, not by a NEEDED entry).
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
