// SHA-256 of a byte string, as 64 lower-case hex digits.
#pragma once

#include <string>

std::string sha256_hex(const std::string &data);
