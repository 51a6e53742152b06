#pragma once
// AES-CBC without padding and MD5: the two primitives the link needs. Two
// backends define them, link/cipher.cpp (OpenSSL) and link/cipher_mbedtls.cpp;
// the build links one (-DTOVRIN_CRYPTO). No logging: the daemon's payload
// protection and the tools wrap these.
#include <cstddef>
#include <cstdint>

#include "link/wire.h"

// Encrypts (or decrypts) len bytes, a multiple of 16, from in to out with a key
// of keylen bytes (16, 24 or 32) and a copy of iv. in and out must not overlap.
// Returns false for any other key length, writing nothing, or for a failure of
// the crypto library.
bool tovrin_aes_cbc(bool encrypt, const uint8_t *in, uint8_t *out, std::size_t len, const uint8_t *key,
                    std::size_t keylen, const uint8_t iv[TOVRIN_IV_LEN]);
// MD5 of len bytes at in into out. False when the crypto library failed: out is then
// zeroed, never left holding whatever it held before.
bool tovrin_md5(const uint8_t *in, std::size_t len, uint8_t out[TOVRIN_MD5_LEN]);
