// Fuzzes the upstream client's reading of a response's status line and header block, from a
// scripted server whose reply arrives in fuzzed pieces.
//
// Input: a count byte n (taken modulo 16), n piece lengths, then the reply bytes; the reply is
// sent in those pieces and then in pieces of 1,024 bytes.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "scripted_peer.h"
#include "upstream/ucurl.h"
#include "util/strings.h"

namespace {

using skerir::fuzz::ScriptedPeer;

constexpr size_t kMaxCuts = 16;
constexpr size_t kRestPiece = 1024;

// The judgement the status line of the first read must get: 0, -1 or -2.
int expected_state(const std::string& first_read, int* http11) {
  const size_t eol = first_read.find("\r\n");
  if (first_read.empty() || eol == std::string::npos || eol == 0) return -1;
  const std::vector<std::string> fields = skerir::split(first_read.substr(0, eol), ' ');
  if (fields.empty() || (fields[0] != "HTTP/1.1" && fields[0] != "HTTP/1.0")) return -1;
  *http11 = fields[0] == "HTTP/1.1" ? 1 : 0;
  return fields.size() >= 2 && !fields[1].empty() && fields[1][0] == '2' ? 0 : -2;
}

void check_headers(const std::string& head, const std::vector<skerir::header>& headers) {
  size_t expected = 0;
  for (const std::string& line : skerir::split(head, '\n')) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    FUZZ_CHECK(expected < headers.size());
    const skerir::header& h = headers[expected++];
    FUZZ_CHECK(h.name == line.substr(0, colon));
    FUZZ_CHECK(line.find(h.value, colon + 1) != std::string::npos);
    FUZZ_CHECK(h.value.empty() ||
               (!skerir::isspace(h.value.front()) && !skerir::isspace(h.value.back())));
  }
  FUZZ_CHECK(expected == headers.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t n_cuts = std::min<size_t>(data[0] % kMaxCuts, size - 1);
  const std::vector<uint8_t> cuts(data + 1, data + 1 + n_cuts);
  const std::string reply(reinterpret_cast<const char*>(data) + 1 + n_cuts, size - 1 - n_cuts);
  const std::vector<std::string> pieces = skerir::fuzz::cut(reply, cuts, kRestPiece);

  // Every read of the status line and headers asks for more than a piece holds.
  ScriptedPeer peer(pieces, SOCK_SEQPACKET);
  skerir::UCurl client;
  client.sock.reset(peer.take_reader());
  client.http11 = 7;  // neither version: only a valid status line may set it

  // The status line is judged on the first read alone.
  std::string response;
  const int state = client.get_read_response_state(&response);
  int http11 = 7;
  const std::string first = pieces.empty() ? "" : pieces[0];
  FUZZ_CHECK(state == expected_state(first, &http11));
  FUZZ_CHECK(client.http11 == http11);
  const size_t eol = first.find("\r\n");
  FUZZ_CHECK(response == (eol == std::string::npos ? first : first.substr(eol + 2)));
  if (state != 0) return 0;

  // The header block ends at the first blank line after the status line: nothing before it is
  // lost, nothing after it is consumed beyond what came in the same read.
  const std::string after = reply.substr(eol + 2);
  size_t head_len = 0;
  size_t body_at = std::string::npos;
  if (after.starts_with("\r\n")) {
    body_at = 2;
  } else if (const size_t end = after.find("\r\n\r\n"); end != std::string::npos) {
    head_len = end;
    body_at = end + 4;
  }
  std::vector<skerir::header> headers{{"stale", "x"}};
  try {
    FUZZ_CHECK(client.get_read_response_headers(&response, &headers));
  } catch (const skerir::UCurlExceptionRecvError&) {
    // Only a reply that ends before its blank line is refused, and the connection is closed.
    FUZZ_CHECK(body_at == std::string::npos && !client.sock.valid());
    return 0;
  }
  FUZZ_CHECK(body_at != std::string::npos);
  check_headers(after.substr(0, head_len), headers);
  peer.stop();
  FUZZ_CHECK(response + peer.unread(client.sock.get()) == after.substr(body_at));
  return 0;
}
