#pragma once
// Payload protection: building plain or encrypted data payloads, IVs, and the
// AES-CBC operations with their failure lines.
#include <cstddef>
#include <cstdint>

#include "link/wire.h"
#include "relay/app_msg.h"

// Number of encrypted payloads built since start; mixed into each IV seed.
extern uint32_t tovrin_iv_count;

// Builds the payload of app (its header, and app->len bytes at app_data) into data,
// encrypted when encrypt_state is 1, plain otherwise; stores its length.
// The caller guarantees the data fits (tovrin_data_fits).
void tovrin_prepare_data(uint8_t *data, int32_t *data_len, const tovrin_app_msg_t *app, const uint8_t *app_data);
void tovrin_prepare_data_plain(uint8_t *data, int32_t *data_len, const tovrin_app_msg_t *app, const uint8_t *app_data);
void tovrin_prepare_data_encrypted(uint8_t *data, int32_t *data_len, const tovrin_app_msg_t *app,
                                   const uint8_t *app_data);
// Whether n data bytes fit the payload area in the form encrypt_state selects.
bool tovrin_data_fits(uint32_t n);
// Seeds the generator with time ^ count and draws the 16 IV bytes.
void tovrin_get_iv(uint8_t *iv, uint32_t count);
// AES-CBC over len bytes (a multiple of 16); the IV is not changed. On a key
// that cannot be set up nothing is written, the failure is reported (encrypt:
// log line, decrypt: console line) and false returned.
bool tovrin_perform_encrypt(const uint8_t *in, uint8_t *out, std::size_t len, const uint8_t *key, uint32_t keylen,
                            const uint8_t *iv);
bool tovrin_perform_decrypt(const uint8_t *in, uint8_t *out, std::size_t len, const uint8_t *key, uint32_t keylen,
                            const uint8_t *iv);
// Protects one transmission of an encrypted payload of len bytes: writes the
// digest into payload's md5 field and the header plus ciphertext into out.
// False when the key cannot be set up (out's ciphertext area is then not written).
bool tovrin_protect_payload(uint8_t *payload, std::size_t len, uint8_t *out);
// Checks and opens a received encrypted payload of len bytes: plain receives
// the data and *n its length. False when it must be dropped; *why then names
// the reason for the log line.
bool tovrin_open_payload(const uint8_t *payload, std::size_t len, uint8_t *plain, std::size_t *n, const char **why);
