// The upstream HTTP/1.x client: one object fetches one sequence of URLs over at most one
// connection (TCP, or TLS for https), which it keeps open between requests to the same scheme,
// host and port (keep-alive). Playlists and keys are read into strings with `get`; segments are
// streamed with `get_stream` straight into a CBuffer, decrypted on the way when a key is given,
// and a segment cut by a receive time-out can be resumed with a Range request that continues
// the same cipher state. Redirects are followed (at most kMaxRedirects per request); bodies may
// be framed by a length, by chunks, or by the close.
//
// Ownership: the object owns its connection (closed by do_disconnect and the destructor) and
// its cipher context (freed by every normal return of the body reader and by the destructor;
// only a body read cut by a receive failure leaves it alive, for the resuming call).
//
// Threading: an object is used by one thread at a time. The cache maps it consults and the TLS
// session cache lock themselves. Every socket wait is a poll() with a time-out, so any
// descriptor number is safe.
#pragma once

#include <openssl/evp.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "upstream/connection.h"
#include "upstream/ucurl_exception.h"

namespace skerir {

class CBuffer;

// One response header line: the name as received (case and blanks kept) and the value
// trimmed of white space at both ends.
struct header {
  std::string name;
  std::string value;
};

inline constexpr int kDefaultHttpPort = 80;
inline constexpr int kDefaultHttpsPort = 443;
inline constexpr int kConnectTimeoutMs = 2000;
inline constexpr int kSendTimeoutMs = 2000;
inline constexpr long kStatusTimeoutSeconds = 6;
inline constexpr long kHeaderTimeoutSeconds = 2;
inline constexpr long kBodyTimeoutSeconds = 2;
inline constexpr int kStreamTimeoutMs = 2000;
// The TLS handshake follows the TCP connect and stands in for the server's first answer: it may
// take the connect time-out plus one header receive time-out.
inline constexpr int kTlsHandshakeTimeoutMs =
    kConnectTimeoutMs + static_cast<int>(kHeaderTimeoutSeconds) * 1000;
inline constexpr unsigned long kHeaderReadSize = 4096;
inline constexpr unsigned long kBodyReadSize = 131071;
// Room an in-place decrypt step may need: one receive block plus two cipher blocks.
inline constexpr unsigned long kDecryptRoom = kBodyReadSize + 32;
inline constexpr unsigned long kDecryptFinalRoom = 32;
inline constexpr int kCommonAttempts = 4;
inline constexpr int kGetCalls = 6;
inline constexpr int kStreamCalls = 6;
// A header block larger than this is not a header block; the read gives up instead of
// growing without bound.
inline constexpr size_t kMaxHeaderBytes = 1u << 20;
// Bodies read into a string are playlists and keys; anything larger is refused.
inline constexpr size_t kMaxStringBody = 64u << 20;
// Redirects followed within one get_common call; one more fails it as a non-2xx status does.
inline constexpr int kMaxRedirects = 5;
// A redirect's body up to this size is read and dropped to keep the connection; a larger (or
// chunked, or close-delimited) one costs the connection instead.
inline constexpr long long kMaxRedirectBody = 64 * 1024;

using HeaderLines = std::vector<std::pair<std::string, std::string>>;

// The request text `get_common` sends: request line, Host (the host in brackets when it is an
// IPv6 address; ":port" only when not `default_port`, the scheme's), Connection, Range when
// `from_bytes` is not 0 or a `range_end` (exclusive) is given, the `extra` lines, blank line.
std::string build_request(const std::string& path, const std::string& host, int port,
                          bool keep_alive, unsigned long from_bytes,
                          int default_port = kDefaultHttpPort, const HeaderLines& extra = {},
                          uint64_t range_end = 0);

// The first header named `name`, compared without regard to case; null when there is none.
const header* find_header(const std::vector<header>& headers, std::string_view name);

class UCurl {
 public:
  UCurl();
  ~UCurl();
  UCurl(const UCurl&) = delete;
  UCurl& operator=(const UCurl&) = delete;

  // Splits `*url` into https/host/port/path and resolves the placeholder hosts "@" (through
  // cache_map) and "~" (through cache_map_playlist) unless a port is named. The port defaults
  // to the scheme's (80, 443); a bracketed host is an IPv6 address, stored without brackets.
  // Throws UCurlException for a URL with a control character or a space (before logging it),
  // an unknown scheme, an unclosed bracket, when the map has no server, or for a null `url`; a
  // URL shorter than its scheme's fixed cut ("http") throws std::out_of_range.
  void parse_url(const std::string* url);

  // Ensures an open connection to host:port (TLS when the last parse_url saw https), reusing
  // the open one when scheme, host and port match. A name's IPv4 addresses are tried before its
  // IPv6 ones, all within the one connect time-out. Never throws; false after logging, with the
  // object closed.
  bool do_connect(std::string host_name, int port_number);
  void do_disconnect();
  // Reports the cache server of the last parse_url (if any) as dead to its map.
  void invalidate_current_cache_server();

  // Writes the whole request once the socket is writable (2 s). False on time-out or error,
  // with the connection closed.
  bool send_data(std::string data);
  // One read of at most `len` bytes after waiting `timeout` seconds for data. Empty when the
  // peer has closed. Throws UCurlExceptionRecvError ("recv timeout1", "recv error") with the
  // connection closed.
  std::string receive(unsigned long len, long timeout);
  // One read into `buf` after waiting 2 s: the raw read() result (-1 seen as unsigned on
  // error). Throws UCurlExceptionRecvError "recv timeout2" with the connection closed.
  unsigned long receive_stream(char* buf, unsigned long len);

  // Reads and judges the status line: 0 for 2xx, kStatusRedirect for 301, 302, 303, 307 and
  // 308 (not logged: get_common decides), -1 for no usable status line, -2 for any other
  // status. Consumes the line from `*response`.
  static constexpr int kStatusRedirect = -3;
  int get_read_response_state(std::string* response);
  // Reads up to the end of the header block, fills `*out_headers` and leaves the first body
  // bytes in `*response`. Always true; throws UCurlExceptionRecvError.
  bool get_read_response_headers(std::string* response, std::vector<header>* out_headers);

  // One GET up to the end of the headers, in at most four attempts, following up to
  // kMaxRedirects redirects (each logged "redirect to: " + URL; a hop is not an attempt, and
  // a failed attempt after one retries the URL it led to). True on a 2xx answer, with
  // `effective_url` the URL that gave it; false after a non-2xx answer, one redirect too many,
  // or four failed attempts. Receive failures propagate.
  bool get_common(std::string url, std::string* response, bool keep_alive,
                  unsigned long from_bytes);
  // Fetches the whole body of `url` into `*out` ("Connection: close", up to six get_common
  // calls). Never throws a client error; false on failure. On success `effective_url` is the
  // URL that answered (the base for the body's relative references).
  bool get(std::string url, std::string* out);

  // Reads the body whose headers get_common consumed into `*out`, or when `out` is null into
  // `buffer`, decrypting AES-128-CBC (zero IV) with `key` when it is not empty and the body goes
  // to the buffer over HTTP/1.1. `resume` continues the cipher state of an interrupted read.
  // `should_finish` (may be null) stops a transfer into the buffer, and a length-delimited one
  // into the string. `*received` is set to the body bytes received (before decryption).
  // An HTTP/1.1 body is framed by chunks ("Transfer-Encoding: chunked"; `*received` then counts
  // payload bytes, and a malformed chunk ends it like a cut), by Content-Length, or else by the
  // close. False only for "Unsupported HTTP version" and a string body over kMaxStringBody
  // ("Body too large"); true also when the transfer stopped early. Receive failures propagate,
  // leaving the cipher context for a resuming call.
  bool get_read_body(std::string* response, std::string* out, CBuffer* buffer,
                     unsigned long* received, std::string key,
                     const std::atomic<bool>* should_finish, bool resume);

  // Downloads one segment into `buffer` (keep-alive; "Range: bytes=from_bytes-" when
  // `from_bytes` is not 0) and sets `speed_kbit` to the body transfer speed in kbit/s (inf or
  // NaN for a transfer measured as 0 ms: callers saturate). Returns the body bytes received or
  // -1. After a -1 caused by a cut body, `stream_pos` is where a resuming call starts; that
  // call (same `url`, `from_bytes` = `stream_pos`) goes to the URL the first one was redirected
  // to, where the bytes so far came from.
  int64_t get_stream(std::string url, CBuffer* buffer, bool close_after, double& speed_kbit,
                     std::string key, const std::atomic<bool>* should_finish,
                     unsigned long from_bytes);
  int64_t get_stream(std::string url, CBuffer* buffer, bool close_after, double& speed_kbit,
                     unsigned long from_bytes);

  struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
  };

  Connection sock;                 // not valid when no connection is open
  sockaddr_storage server_addr{};  // of the open connection; IPv4 or IPv6
  int https = 0;
  int http11 = 0;
  std::string connected_host;
  std::string host;
  int connected_port = -1;
  int port = 0;
  std::string path;
  int cache_kind = 0;  // 0 none, 1 cache_map (segments), 2 cache_map_playlist (playlists)
  std::string cache_server;
  std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> decrypt_ctx;
  unsigned char iv[16] = {};
  std::vector<header> headers;
  uint64_t stream_pos = 0;
  // The URL the last get_common call ended at, after its redirects: the URL that answered when
  // it returned true.
  std::string effective_url;
  // The IV of the next encrypted body that starts afresh: 16 bytes, or empty for all zeros.
  std::string segment_iv;
  // Where the requested part of the resource ends (exclusive), for a segment that is a byte
  // range of a larger resource; 0 when it runs to the resource's end.
  uint64_t range_end = 0;
  // While a body goes into a buffer holding more than this many bytes, the download waits for
  // the reader (0: never). The time waited is left out of the measured speed: a slow client is
  // not a slow origin.
  uint64_t buffer_limit = 0;
  // Header lines sent after the standard ones in every request; empty by default, and then
  // requests are exactly as they always were. A line with a control character or a name that
  // is not a token fails the attempt before anything is sent.
  HeaderLines extra_headers;

 private:
  class BodyFraming;
  enum class Outcome { answered, failed, refused, redirected };

  // One request of get_common and what came of it; a redirect advances `*url` and `*hops`.
  Outcome request_once(std::string* url, std::string* response, bool keep_alive,
                       unsigned long from_bytes, int* hops);
  // Whether retrying cannot help: the connection was refused as skerir's own or outside the
  // allow list, or a WaitLimit of the thread was reached (logged here, once per call).
  bool gave_up() const;
  // Leaves the connection ready for the next request after a redirect's headers: a small
  // length-delimited body is read and dropped on a kept-alive connection, else the connection
  // is closed. `*response` is emptied either way.
  void drop_redirect_body(std::string* response, bool keep_alive);
  bool open_socket(int family);
  void read_body_into_buffer(std::string* response, CBuffer* buffer, BodyFraming& framing,
                             long long* got, const std::atomic<bool>* should_finish);
  // Before each read into `buffer`: waits while it holds more than buffer_limit.
  void wait_for_room(CBuffer* buffer, const std::atomic<bool>* should_finish);
  bool read_body_into_string(std::string* response, std::string* out, BodyFraming& framing,
                             long long* got, const std::atomic<bool>* should_finish);

  // Receive scratch reused across calls (a receive block can be 128 KiB: too big for a stack).
  std::vector<char> scratch_;
  std::vector<unsigned char> decrypt_scratch_;
  std::string status_line_;  // of the last answer, for the log of a refused redirect
  bool refused_ = false;     // the last connection was refused by policy: final for this call
  std::chrono::nanoseconds paused_{0};  // waited for room during the current body
  socklen_t server_addr_len_ = 0;
  // The URL of the last get_stream call and where its redirects led: a resuming call goes
  // straight there.
  std::string stream_url_, stream_final_url_;
};

}  // namespace skerir
