#include "main/request.h"

#include <gtest/gtest.h>

namespace skerir {
namespace {

using ParamList = std::vector<std::pair<std::string, std::string>>;

TEST(RequestTarget, SplitsPathNamesAndValuesByTheScannerRules) {
  const struct {
    std::string target, resource;
    ParamList params;
  } cases[] = {
      {"/stats.json", "/stats.json", {}},
      {"/stream?url=%2Fa%2Fm.m3u8&startFrom=3",
       "/stream",
       {{"url", "/a/m.m3u8"}, {"startFrom", "3"}}},
      {"/x?a&b=1", "/x", {{"a&b", "1"}}},
      {"/x?flag", "/x", {{"flag", ""}}},
      {"/x?a=1=2", "/x", {{"a", "1=2"}}},
      {"/x?a=1&&b=2", "/x", {{"a", "1"}, {"&b", "2"}}},
      {"/x?a=1&a=2&", "/x", {{"a", "1"}, {"a", "2"}}},
      {"/x?u%72l=a+b%26c", "/x", {{"u%72l", "a b&c"}}},
      {"/stream%2Ets", "/stream.ts", {}},
      {"", "", {}},
  };
  for (const auto& c : cases) {
    Request r(-1, 0, nullptr, nullptr);
    r.parse_url(c.target);
    ParamList got;
    for (const Param& p : r.params) got.emplace_back(p.name, p.value);
    EXPECT_EQ(r.resource, c.resource) << c.target;
    EXPECT_EQ(got, c.params) << c.target;
  }
  Request r(-1, 0, nullptr, nullptr);
  r.parse_url("/stream?url=a&URL=c&url=b");
  EXPECT_EQ(*r.get_param("url"), "a");
  EXPECT_EQ(*r.get_param("URL"), "c");
  EXPECT_EQ(r.get_param("ur"), nullptr);
}

}  // namespace
}  // namespace skerir
