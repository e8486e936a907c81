// SHA-256 of a byte string, as 64 lower-case hex digits.
#pragma once

#include <openssl/sha.h>
#include <stdio.h>

#include <string>

inline std::string sha256_hex(const std::string &data)
{
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char *>(data.data()), data.size(), digest);
    char hex[2 * SHA256_DIGEST_LENGTH + 1];
    for (int i = 0; i < SHA256_DIGEST_LENGTH; i++)
        snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return hex;
}
