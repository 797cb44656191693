// The CRC-32 that picks a cache server for a request key: the common reflected CRC
// (polynomial 0xEDB88320, initial value 0xFFFFFFFF, final complement), so that the server
// choice can be reproduced by anyone who knows the key. Pure; any thread may call it.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace skerir {

// Entry i is the CRC register after shifting the byte i through it.
extern const std::array<uint32_t, 256> ngx_crc32_table256;

// The CRC-32 of `bytes`; 0 for no bytes. Example: crc32("123456789") == 0xCBF43926.
uint32_t crc32(std::string_view bytes);

}  // namespace skerir
