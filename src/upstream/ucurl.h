// The upstream HTTP/1.x client: one object fetches one sequence of URLs over at most one TCP
// connection, which it keeps open between requests to the same host and port (keep-alive).
// Playlists and keys are read into strings with `get`; segments are streamed with
// `get_stream` straight into a CBuffer, decrypted on the way when a key is given, and a
// segment cut by a receive time-out can be resumed with a Range request that continues the
// same cipher state.
//
// Ownership: the object owns its socket (closed by do_disconnect and the destructor) and its
// cipher context (freed by every normal return of the body reader and by the destructor; only
// a body read cut by a receive failure leaves it alive, for the resuming call).
//
// Threading: an object is used by one thread at a time. The cache maps it consults lock
// themselves. Every socket wait is a poll() with a time-out, so any descriptor number is safe.
#pragma once

#include <netinet/in.h>
#include <openssl/evp.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "upstream/ucurl_exception.h"
#include "util/unique_fd.h"

namespace skerir {

class CBuffer;

// One response header line: the name as received (case and blanks kept) and the value
// trimmed of white space at both ends.
struct header {
  std::string name;
  std::string value;
};

inline constexpr int kDefaultHttpPort = 80;
inline constexpr int kConnectTimeoutMs = 2000;
inline constexpr int kSendTimeoutMs = 2000;
inline constexpr long kStatusTimeoutSeconds = 6;
inline constexpr long kHeaderTimeoutSeconds = 2;
inline constexpr long kBodyTimeoutSeconds = 2;
inline constexpr int kStreamTimeoutMs = 2000;
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

// Sets (setnonblock) or clears (setblock) O_NONBLOCK on `fd`. Returns the result of the
// F_SETFL call.
int setnonblock(int fd);
int setblock(int fd);

// The request text `get_common` sends: request line, Host (":port" only when not 80),
// Connection, Range only when `from_bytes` is not 0, blank line.
std::string build_request(const std::string& path, const std::string& host, int port,
                          bool keep_alive, unsigned long from_bytes);

class UCurl {
 public:
  UCurl();
  ~UCurl();
  UCurl(const UCurl&) = delete;
  UCurl& operator=(const UCurl&) = delete;

  // Splits `*url` into https/host/port/path and resolves the placeholder hosts "@" (through
  // cache_map) and "~" (through cache_map_playlist) unless a port is named. Throws
  // UCurlException for an unknown scheme, when the map has no server, or for a null `url`; a
  // URL shorter than its scheme's fixed cut ("http") throws std::out_of_range.
  void parse_url(const std::string* url);

  // Ensures an open connection to host:port, reusing the open one when both match. Never
  // throws; false after logging, with the object closed.
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

  // Reads and judges the status line: 0 for 2xx, -1 for no usable status line, -2 for any
  // other status. Consumes the line from `*response`.
  int get_read_response_state(std::string* response);
  // Reads up to the end of the header block, fills `*out_headers` and leaves the first body
  // bytes in `*response`. Always true; throws UCurlExceptionRecvError.
  bool get_read_response_headers(std::string* response, std::vector<header>* out_headers);

  // One GET up to the end of the headers, in at most four attempts. True on a 2xx answer;
  // false after a non-2xx answer or four failed attempts. Receive failures propagate.
  bool get_common(std::string url, std::string* response, bool keep_alive,
                  unsigned long from_bytes);
  // Fetches the whole body of `url` into `*out` ("Connection: close", up to six get_common
  // calls). Never throws a client error; false on failure.
  bool get(std::string url, std::string* out);

  // Reads the body whose headers get_common consumed into `*out`, or when `out` is null into
  // `buffer`, decrypting AES-128-CBC (zero IV) with `key` when it is not empty and the body goes
  // to the buffer over HTTP/1.1. `resume` continues the cipher state of an interrupted read.
  // `should_finish` (may be null) stops a transfer into the buffer, and a length-delimited one
  // into the string. `*received` is set to the body bytes received (before decryption).
  // False only for "Content-Length unknown", "Unsupported HTTP version" and a string body over
  // kMaxStringBody ("Body too large"); true also when the transfer stopped early. Receive
  // failures propagate, leaving the cipher context for a resuming call.
  bool get_read_body(std::string* response, std::string* out, CBuffer* buffer,
                     unsigned long* received, std::string key,
                     const std::atomic<bool>* should_finish, bool resume);

  // Downloads one segment into `buffer` (keep-alive; "Range: bytes=from_bytes-" when
  // `from_bytes` is not 0) and sets `speed_kbit` to the body transfer speed in kbit/s (inf or
  // NaN for a transfer measured as 0 ms: callers saturate). Returns the body bytes received or
  // -1. After a -1 caused by a cut body, `stream_pos` is where a resuming call starts.
  int64_t get_stream(std::string url, CBuffer* buffer, bool close_after, double& speed_kbit,
                     std::string key, const std::atomic<bool>* should_finish,
                     unsigned long from_bytes);
  int64_t get_stream(std::string url, CBuffer* buffer, bool close_after, double& speed_kbit,
                     unsigned long from_bytes);

  struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
  };

  UniqueFd sock;  // not valid when no connection is open
  sockaddr_in server_addr{};
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

 private:
  bool read_body_into_buffer(std::string* response, CBuffer* buffer, long long content_length,
                             long long* got, const std::atomic<bool>* should_finish);
  bool read_body_into_string(std::string* response, std::string* out, long long content_length,
                             long long* got, const std::atomic<bool>* should_finish);

  // Receive scratch reused across calls (a receive block can be 128 KiB: too big for a stack).
  std::vector<char> scratch_;
  std::vector<unsigned char> decrypt_scratch_;
};

}  // namespace skerir
