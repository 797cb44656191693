#include "cachemap/crc32.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace skerir {
namespace {

// Bit at a time, from the definition; shares nothing with the table-driven code.
uint32_t crc32_bitwise(std::string_view bytes) {
  uint32_t crc = 0xFFFFFFFF;
  for (unsigned char b : bytes) {
    crc ^= b;
    for (int i = 0; i < 8; ++i) crc = (crc >> 1) ^ (0xEDB88320 & (0u - (crc & 1)));
  }
  return ~crc;
}

TEST(Crc32, MatchesPublishedCheckValues) {
  const struct {
    std::string_view text;
    uint32_t crc;
  } cases[] = {
      {"123456789", 0xCBF43926},  // the customary check value
      {"", 0x00000000},
      {"a", 0xE8B7BE43},
      {"The quick brown fox jumps over the lazy dog", 0x414FA339},
      {"abc/def", 0x20D7BCF8},  // a cache key
  };
  for (const auto& c : cases) EXPECT_EQ(crc32(c.text), c.crc) << "text: \"" << c.text << "\"";
}

TEST(Crc32, AgreesWithTheBitwiseDefinitionForOddAndEvenLengthsAndEveryByte) {
  std::string bytes;
  for (int i = 0; i < 300; ++i) bytes.push_back(static_cast<char>((i * 151 + 7) & 0xFF));
  for (size_t len = 0; len <= bytes.size(); ++len) {
    const std::string_view prefix(bytes.data(), len);
    ASSERT_EQ(crc32(prefix), crc32_bitwise(prefix)) << "length " << len;
  }
  for (int b = 0; b < 256; ++b) {
    const std::string one(1, static_cast<char>(b));
    ASSERT_EQ(crc32(one), crc32_bitwise(one)) << "byte " << b;
  }
}

}  // namespace
}  // namespace skerir
