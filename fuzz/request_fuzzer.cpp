// The request target's query scanner, and the request line and header reader on the input as
// the bytes of a connection.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "fuzz_check.h"
#include "main/request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), std::min<size_t>(size, 60000));
  skerir::Request scanned(-1, 0, nullptr, nullptr);
  scanned.parse_url(input);
  for (const skerir::Param& p : scanned.params) FUZZ_CHECK(p.name.find('=') == std::string::npos);
  FUZZ_CHECK(std::count(input.begin(), input.end(), '=') >=
             static_cast<long>(scanned.params.size()) - 1);

  int sv[2];
  FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0);
  FUZZ_CHECK(::write(sv[1], input.data(), input.size()) == static_cast<ssize_t>(input.size()));
  ::close(sv[1]);
  skerir::Request request(sv[0], 0, nullptr, nullptr);
  try {
    request.parse_resource();
    FUZZ_CHECK(request.method >= 0 && request.method <= 2);
    request.skip_headers();
  } catch (const skerir::Http406& e) {
    FUZZ_CHECK(std::string(e.what()) == "Invalid Request");
  }
  ::close(sv[0]);
  return 0;
}
