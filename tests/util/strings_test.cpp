#include "util/strings.h"

#include <gtest/gtest.h>

namespace skerir {
namespace {

TEST(Strings, SplitKeepsInnerAndLeadingEmptyPiecesButNotOneTrailing) {
  using Pieces = std::vector<std::string>;
  const std::pair<std::string, Pieces> cases[] = {
      {"", {}},          {";", {""}},          {"a;b", {"a", "b"}}, {"a;;b", {"a", "", "b"}},
      {";a", {"", "a"}}, {"a;b;", {"a", "b"}}, {"a;;", {"a", ""}},  {"a; b", {"a", " b"}},
  };
  for (const auto& [text, pieces] : cases) EXPECT_EQ(split(text, ';'), pieces) << text;
  Pieces out{"x"};
  EXPECT_EQ(split("a;b", ';', out), (Pieces{"x", "a", "b"}));
}

TEST(Strings, UrlDecodeTakesWhatStrtolMakesOfEachEscapeAndTrimsTakeSixSpaces) {
  const std::pair<std::string, std::string> decoded[] = {
      {"a+b%20c", "a b c"}, {"%2B", "+"},    {"%zzq", std::string(1, '\0') + "q"},
      {"%4z", "\x04"},      {"%-1", "\xff"}, {"100%", std::string("100\0", 4)},
  };
  for (auto [in, out] : decoded) {
    url_decode(&in);
    EXPECT_EQ(in, out);
  }
  const std::pair<std::string, std::string> trimmed[] = {
      {" \t value \r\n", "value"}, {"\v\fa b\f", "a b"}, {" \t\r\n", ""}, {"\xa0x", "\xa0x"}};
  for (auto [in, out] : trimmed) EXPECT_EQ(trim(in), out);
  std::string l = "  a  ", r = "  a  ";
  EXPECT_EQ(ltrim(l) + "|" + rtrim(r), "a  |  a");
}

}  // namespace
}  // namespace skerir
