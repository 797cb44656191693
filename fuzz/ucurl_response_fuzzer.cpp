// The upstream client reading a response (status line, header block, body) from a peer that
// sends the input and closes: it never crashes, judges the status line as the first line says
// and trims every header value, and never yields more body than it was sent, whatever the
// framing (length, chunks, the close). The first byte picks the body's destination: a string,
// or the stream buffer clear or decrypted.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "buffer/cbuffer.h"
#include "fuzz_check.h"
#include "upstream/ucurl.h"
#include "util/strings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string reply(reinterpret_cast<const char*>(data) + 1,
                          std::min<size_t>(size - 1, 60000));
  int sv[2];
  FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0);
  FUZZ_CHECK(::write(sv[1], reply.data(), reply.size()) == static_cast<ssize_t>(reply.size()));
  ::close(sv[1]);
  skerir::UCurl client;
  client.sock.reset(sv[0]);
  std::string response;
  try {
    const int state = client.get_read_response_state(&response);
    FUZZ_CHECK(state == 0 || state == -1 || state == -2 ||
               state == skerir::UCurl::kStatusRedirect);
    FUZZ_CHECK(state == -1 || reply.starts_with("HTTP/1."));
    if (state != 0) return 0;
    client.get_read_response_headers(&response, &client.headers);
    for (const skerir::header& h : client.headers) {
      FUZZ_CHECK(h.value.empty() ||
                 (!skerir::isspace(h.value.front()) && !skerir::isspace(h.value.back())));
    }
    std::string body;
    skerir::CBuffer buffer;
    unsigned long received = 0;
    const bool to_buffer = data[0] & 1;
    client.get_read_body(&response, to_buffer ? nullptr : &body, &buffer, &received,
                         data[0] & 2 ? "0123456789abcdef" : "", nullptr, false);
    FUZZ_CHECK(body.size() + buffer.size <= reply.size() && received <= reply.size());
  } catch (const skerir::UCurlExceptionRecvError&) {
    FUZZ_CHECK(!client.sock.valid());
  }
  return 0;
}
