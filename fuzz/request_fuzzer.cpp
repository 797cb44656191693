// Fuzzes what a client sends before routing: the request target's query scanner on the input as
// a target, and the request line and header reader on the input as the bytes of a connection
// (through a socket pair, so the byte-at-a-time reads are the real ones).
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "main/request.h"
#include "util/strings.h"

namespace {

using skerir::Request;

// Connection bytes beyond this are not sent: a socket pair takes them without blocking, and
// longer lines only repeat the 4,095-byte cut.
constexpr size_t kMaxSent = 64 * 1024;

size_t count_of(const std::string& s, char c) { return std::count(s.begin(), s.end(), c); }

void check_query_scanner(const std::string& target) {
  Request request(-1, 0, nullptr, nullptr);
  request.parse_url(target);
  const size_t q = target.find('?');
  if (target.empty()) {
    FUZZ_CHECK(request.resource.empty() && request.params.empty());
    return;
  }
  std::string path = target.substr(0, q);
  skerir::url_decode(&path);
  FUZZ_CHECK(request.resource == path);
  if (q == std::string::npos) {
    FUZZ_CHECK(request.params.empty());
    return;
  }
  // Only "=" or the end closes a name, so there is at most one parameter per "=" plus the last.
  const std::string query = target.substr(q + 1);
  FUZZ_CHECK(request.params.size() <= count_of(query, '=') + 1);
  size_t name_bytes = 0;
  for (size_t i = 0; i < request.params.size(); ++i) {
    const skerir::Param& p = request.params[i];
    FUZZ_CHECK(p.name.find('=') == std::string::npos);
    FUZZ_CHECK(query.find(p.name) != std::string::npos);
    FUZZ_CHECK(p.value.size() <= query.size());
    name_bytes += p.name.size();
    // The look-up finds the first parameter of that name.
    std::string* found = request.get_param(p.name);
    FUZZ_CHECK(found != nullptr);
    size_t first = 0;
    while (request.params[first].name != p.name) ++first;
    FUZZ_CHECK(found == &request.params[first].value);
  }
  FUZZ_CHECK(name_bytes <= query.size());
}

// What one readline() call of `size` must consume from bytes[*pos...] and the line it yields.
std::string model_readline(const std::string& bytes, size_t* pos, int size) {
  std::string line;
  int64_t count = 1;
  while (*pos < bytes.size()) {
    const char c = bytes[(*pos)++];
    if (c == '\n') break;
    if (c != '\r') line.push_back(c);
    if (++count >= size) break;
  }
  return line;
}

bool send_all(int fd, const std::string& bytes) {
  size_t off = 0;
  while (off < bytes.size()) {
    const ssize_t w = ::send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    off += static_cast<size_t>(w);
  }
  return true;
}

void check_connection(const std::string& bytes) {
  int sv[2];
  FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0);
  const int big = 4 * kMaxSent;
  ::setsockopt(sv[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof(big));
  FUZZ_CHECK(send_all(sv[1], bytes));
  ::shutdown(sv[1], SHUT_WR);  // the client has said everything: reads end, never block

  size_t pos = 0;
  const std::string line = model_readline(bytes, &pos, skerir::kRequestLineLimit);
  const std::vector<std::string> tokens = skerir::split(line, ' ');

  Request request(sv[0], 0, nullptr, nullptr);
  bool invalid = false;
  try {
    request.parse_resource();
    request.skip_headers();
  } catch (const skerir::Http406& e) {
    invalid = true;
    FUZZ_CHECK(std::string(e.what()) == "Invalid Request");
  }
  FUZZ_CHECK(invalid == (tokens.size() < 3));
  if (!invalid) {
    const int method = tokens[0] == "GET" ? 0 : tokens[0] == "HEAD" ? 1 : 2;
    FUZZ_CHECK(request.method == method);
    FUZZ_CHECK(request.version == (tokens[2] == "HTTP/1.1" ? 0 : 1));
    Request expected(-1, 0, nullptr, nullptr);
    expected.parse_url(tokens[1]);
    FUZZ_CHECK(request.resource == expected.resource);
    FUZZ_CHECK(request.params.size() == expected.params.size());
    // The headers end at the first empty line (or the close); nothing after it is consumed.
    while (!model_readline(bytes, &pos, skerir::kRequestLineLimit).empty()) {
    }
  }
  std::string rest;
  char buf[4096];
  for (;;) {
    const ssize_t n = ::read(sv[0], buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    rest.append(buf, static_cast<size_t>(n));
  }
  FUZZ_CHECK(rest == bytes.substr(pos));
  ::close(sv[0]);
  ::close(sv[1]);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ::signal(SIGPIPE, SIG_IGN);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  check_query_scanner(input);
  check_connection(input.substr(0, kMaxSent));
  return 0;
}
