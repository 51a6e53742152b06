#include "link/protect.h"

#include <cstdio>
#include <cstring>

#include "core/log_rule.h"
#include "link/cipher.h"
#include "link/record.h"
#include "platform/os.h"

uint32_t tovrin_iv_count;

namespace {
void store_head(uint8_t *data, uint8_t type, uint32_t len, const tovrin_app_msg_t *app) {
    data[TOVRIN_DOFF_TYPE] = type;
    data[1] = 0;
    tovrin_store16(data + TOVRIN_DOFF_LEN, static_cast<uint16_t>(len));
    tovrin_store32(data + TOVRIN_DOFF_SRC, static_cast<uint32_t>(app->src_ep));
    tovrin_store32(data + TOVRIN_DOFF_DST, static_cast<uint32_t>(app->dst_ep));
}
}  // namespace

bool tovrin_data_fits(uint32_t n) {
    return n <= (tovrin_gbl.encrypt_state == 1 ? TOVRIN_MAX_ENC_DATA : TOVRIN_MAX_PLAIN_DATA);
}

void tovrin_prepare_data(uint8_t *data, int32_t *data_len, const tovrin_app_msg_t *app, const uint8_t *app_data) {
    if (tovrin_gbl.encrypt_state == 1)
        tovrin_prepare_data_encrypted(data, data_len, app, app_data);
    else
        tovrin_prepare_data_plain(data, data_len, app, app_data);
}

void tovrin_prepare_data_plain(uint8_t *data, int32_t *data_len, const tovrin_app_msg_t *app, const uint8_t *app_data) {
    uint32_t len = app->len + TOVRIN_PLAIN_HDR_LEN;
    *data_len = static_cast<int32_t>(len);
    store_head(data, TOVRIN_DATA_PLAIN, len, app);
    std::memcpy(data + TOVRIN_PLAIN_HDR_LEN, app_data, app->len);
}

void tovrin_prepare_data_encrypted(uint8_t *data, int32_t *data_len, const tovrin_app_msg_t *app,
                                   const uint8_t *app_data) {
    ++tovrin_iv_count;
    uint32_t len = app->len + TOVRIN_ENC_HDR_LEN;
    uint32_t pad = ((len + 15) & ~15u) - len;
    tovrin_store32(data + TOVRIN_DOFF_PAD, pad);
    len += pad;
    *data_len = static_cast<int32_t>(len);
    store_head(data, TOVRIN_DATA_ENC, len, app);
    tovrin_get_iv(data + TOVRIN_DOFF_IV, tovrin_iv_count);
    std::memcpy(data + TOVRIN_ENC_HDR_LEN, app_data, app->len);
    // The pad's content is free; zeros keep stale bytes of an earlier message off the wire.
    std::memset(data + TOVRIN_ENC_HDR_LEN + app->len, 0, pad);
}

void tovrin_get_iv(uint8_t *iv, uint32_t count) {
    uint32_t seed = static_cast<uint32_t>(vk_os_time(nullptr) % 2147483647) ^ count;
    vk_os_srand(seed);
    for (int i = 0; i < 4; ++i) tovrin_store32(iv + 4 * i, static_cast<uint32_t>(vk_os_rand()));
}

bool tovrin_perform_encrypt(const uint8_t *in, uint8_t *out, std::size_t len, const uint8_t *key, uint32_t keylen,
                            const uint8_t *iv) {
    if (!tovrin_aes_cbc(true, in, out, len, key, keylen, iv)) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: Encrypt key set failed\n");
        return false;
    }
    return true;
}

bool tovrin_perform_decrypt(const uint8_t *in, uint8_t *out, std::size_t len, const uint8_t *key, uint32_t keylen,
                            const uint8_t *iv) {
    if (!tovrin_aes_cbc(false, in, out, len, key, keylen, iv)) {
        std::puts("Decrypt key set failed");
        std::fflush(stdout);
        return false;
    }
    return true;
}

bool tovrin_protect_payload(uint8_t *payload, std::size_t len, uint8_t *out) {
    std::size_t body = len - TOVRIN_ENC_HDR_LEN;
    if (!tovrin_md5(payload + TOVRIN_ENC_HDR_LEN, body, payload + TOVRIN_DOFF_MD5)) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: Digest of outgoing msg failed\n");
        return false;
    }
    std::memcpy(out, payload, TOVRIN_ENC_HDR_LEN);
    return tovrin_perform_encrypt(payload + TOVRIN_ENC_HDR_LEN, out + TOVRIN_ENC_HDR_LEN, body, tovrin_gbl.key,
                                  tovrin_gbl.keylen, payload + TOVRIN_DOFF_IV);
}

bool tovrin_open_payload(const uint8_t *payload, std::size_t len, uint8_t *plain, std::size_t *n, const char **why) {
    // Bounds first: a short or ragged payload would make the arithmetic below negative.
    if (len < TOVRIN_ENC_HDR_LEN || (len - TOVRIN_ENC_HDR_LEN) % TOVRIN_AES_BLOCK != 0) {
        *why = "not a whole number of blocks after the 48-byte header";
        return false;
    }
    std::size_t body = len - TOVRIN_ENC_HDR_LEN;
    uint32_t pad = tovrin_load32(payload + TOVRIN_DOFF_PAD);
    if (pad > body) {
        *why = "pad count beyond the payload";
        return false;
    }
    // A key that cannot be set up leaves nothing to check: dropped as a bad digest.
    if (!tovrin_perform_decrypt(payload + TOVRIN_ENC_HDR_LEN, plain, body, tovrin_gbl.key, tovrin_gbl.keylen,
                                payload + TOVRIN_DOFF_IV)) {
        *why = nullptr;
        return false;
    }
    uint8_t digest[TOVRIN_MD5_LEN];
    if (!tovrin_md5(plain, body, digest)) {
        *why = "digest could not be computed";
        return false;
    }
    if (std::memcmp(digest, payload + TOVRIN_DOFF_MD5, TOVRIN_MD5_LEN) != 0) {
        *why = nullptr;
        return false;
    }
    *n = body - pad;
    return true;
}
