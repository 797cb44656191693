#include "util/strings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace skerir {
namespace {

using Pieces = std::vector<std::string>;

TEST(StringSplit, KeepsInnerAndLeadingEmptyPiecesButNotOneTrailing) {
  const struct {
    std::string text;
    char delim;
    Pieces pieces;
  } cases[] = {
      {"", ';', {}},
      {";", ';', {""}},
      {"a;b", ';', {"a", "b"}},
      {"a,,b", ',', {"a", "", "b"}},
      {",a", ',', {"", "a"}},
      {"a,b,", ',', {"a", "b"}},
      {"a,,", ',', {"a", ""}},
      {"GET  /x HTTP/1.1", ' ', {"GET", "", "/x", "HTTP/1.1"}},
      {"a, b", ',', {"a", " b"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(split(c.text, c.delim), c.pieces) << "text: \"" << c.text << "\"";
  }
}

TEST(StringSplit, AppendsToTheGivenVector) {
  Pieces out{"x"};
  split("a;b", ';', out);
  EXPECT_EQ(out, (Pieces{"x", "a", "b"}));
}

TEST(UrlDecode, DecodesPlusAndEscapesWithoutValidation) {
  const struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"a+b%20c", "a b c"},
      {"%41", "A"},
      {"%2B", "+"},
      {"%2b+", "+ "},
      {"%zz", std::string(1, '\0')},
      {"%zzq", std::string(1, '\0') + "q"},
      {"%4z", std::string(1, '\x04')},
      {"%-1", std::string(1, '\xFF')},
      {"100%", std::string("100") + '\0'},
      {"%", std::string(1, '\0')},
      {"x%4", "x\x04"},
      {"/stream%2Ets", "/stream.ts"},
      {"", ""},
  };
  for (const auto& c : cases) {
    std::string s = c.in;
    url_decode(&s);
    EXPECT_EQ(s, c.out) << "input: \"" << c.in << "\"";
  }
}

TEST(StringTrim, StripsTheSixWhiteSpaceCharacters) {
  const struct {
    std::string in;
    std::string both, left, right;
  } cases[] = {
      {" \t value \r\n", "value", "value \r\n", " \t value"},
      {"", "", "", ""},
      {" \v\f\r\n\t", "", "", ""},
      {"a b", "a b", "a b", "a b"},
      {"\xA0x\xA0", "\xA0x\xA0", "\xA0x\xA0", "\xA0x\xA0"},  // not white space in the C locale
  };
  for (const auto& c : cases) {
    std::string b = c.in, l = c.in, r = c.in;
    EXPECT_EQ(trim(b), c.both);
    EXPECT_EQ(ltrim(l), c.left);
    EXPECT_EQ(rtrim(r), c.right);
  }
}

}  // namespace
}  // namespace skerir
