// Renders a cache map compactly for test assertions: rings in order, separated by " | ",
// each as its alive count then its servers in quotes, dead ones marked with "!":
// «2: "a" "b" | 0: "c"!» is a ring of two live servers a and b, then a ring whose only
// server c is dead.
#pragma once

#include <string>

#include "cachemap/cachemap.h"

namespace skerir::test {

std::string describe(const CacheMap& map);

}  // namespace skerir::test
