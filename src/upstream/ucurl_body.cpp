// Body reading (into a string or a CBuffer, clear or AES-128-CBC) and segment streaming.
//
// Resumption rests on one rule: only a receive failure (an exception) leaves get_read_body
// with the cipher context alive. The context then holds the CBC chaining block and any
// partial block held back, so a Range request from `stream_pos` continues decryption at the
// very next ciphertext byte. Every normal return frees it.
#include <time.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "buffer/cbuffer.h"
#include "upstream/chunked.h"
#include "upstream/ucurl.h"
#include "util/log.h"

namespace skerir {
namespace {

constexpr int kAesKeyBytes = 16;

// atol without undefined behaviour on overflow: saturates at the long long range.
long long to_long(const std::string& text) { return std::strtoll(text.c_str(), nullptr, 10); }

// The first byte position of a Content-Range value such as "bytes 5000-9999/10000".
uint64_t content_range_start(const std::string& value) {
  const size_t unit = value.find("bytes ");
  const size_t start = unit == std::string::npos ? 0 : unit + 6;
  const size_t dash = value.find('-', start);
  const long long first =
      to_long(value.substr(start, dash == std::string::npos ? dash : dash - start));
  return first > 0 ? static_cast<uint64_t>(first) : 0;
}

unsigned char* as_bytes(char* p) { return reinterpret_cast<unsigned char*>(p); }

// Whether a Transfer-Encoding value ends in the "chunked" coding.
bool ends_chunked(std::string value) {
  for (char& c : value) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.pop_back();
  if (!value.ends_with("chunked")) return false;
  const size_t before = value.size() - 7;
  return before == 0 || value[before - 1] == ',' || value[before - 1] == ' ';
}

}  // namespace

// How an HTTP/1.1 body ends (RFC 9112 section 6.3): after its last chunk when the final
// transfer coding is chunked; at the close for any other transfer coding; after Content-Length
// bytes; and at the close when neither is given.
class UCurl::BodyFraming {
 public:
  explicit BodyFraming(const std::vector<header>& headers) {
    const header* coding = find_header(headers, "Transfer-Encoding");
    const header* length = find_header(headers, "Content-Length");
    if (coding != nullptr) {
      kind_ = ends_chunked(coding->value) ? Kind::chunked : Kind::close;
    } else if (length != nullptr) {
      kind_ = Kind::length;
      length_ = to_long(length->value);
    }
  }

  // Takes `n` bytes received at `data` and returns how many payload bytes are now at
  // data[0, result): all of them, or what the chunk framing carried.
  size_t take(char* data, size_t n) { return kind_ == Kind::chunked ? chunks_.decode(data, n) : n; }
  // Whether the body goes on after `got` payload bytes.
  bool wants_more(long long got) const {
    if (kind_ == Kind::length) return got < length_;
    if (kind_ == Kind::chunked) return !chunks_.done() && !chunks_.failed();
    return true;
  }
  bool malformed() const { return chunks_.failed(); }

 private:
  enum class Kind { length, chunked, close };
  Kind kind_ = Kind::close;
  long long length_ = 0;
  ChunkedDecoder chunks_;
};

bool UCurl::get_read_body(std::string* response, std::string* out, CBuffer* buffer,
                          unsigned long* received, std::string key,
                          const std::atomic<bool>* should_finish, bool resume) {
  std::string discard;
  if (out == nullptr && buffer == nullptr) out = &discard;
  unsigned long ignored = 0;
  if (received == nullptr) received = &ignored;

  // A resumed read keeps the context an interrupted one left; without one (nothing was cut)
  // it starts afresh rather than decrypting through no context at all.
  if (!key.empty() && (!resume || !decrypt_ctx)) {
    unsigned char key_bytes[kAesKeyBytes] = {};
    std::memcpy(key_bytes, key.data(), std::min<size_t>(key.size(), kAesKeyBytes));
    std::memset(iv, 0, sizeof(iv));
    if (segment_iv.size() == sizeof(iv)) std::memcpy(iv, segment_iv.data(), sizeof(iv));
    decrypt_ctx.reset(EVP_CIPHER_CTX_new());
    EVP_DecryptInit_ex(decrypt_ctx.get(), EVP_aes_128_cbc(), nullptr, key_bytes, iv);
  } else if (key.empty()) {
    decrypt_ctx.reset();
  }

  if (out != nullptr) out->clear();
  *received = 0;
  long long got = 0;

  if (http11 == 1) {
    BodyFraming framing(headers);
    stream_pos = 0;
    if (const header* range = find_header(headers, "Content-Range")) {
      stream_pos = content_range_start(range->value);
    }
    // `got` and `stream_pos` count payload: the bytes a Range request counts.
    response->resize(framing.take(response->data(), response->size()));
    got = static_cast<long long>(response->size());
    stream_pos += response->size();
    bool ok = true;
    if (out == nullptr) {
      read_body_into_buffer(response, buffer, framing, &got, should_finish);
    } else {
      ok = read_body_into_string(response, out, framing, &got, should_finish);
    }
    *received = static_cast<unsigned long>(got);
    if (framing.malformed()) {
      // Ends like a cut body, but the connection is mid-message: it cannot be reused.
      log_err("Malformed chunked body");
      do_disconnect();
    }
    if (!ok) {
      decrypt_ctx.reset();
      return false;
    }
  } else if (http11 == 0) {
    // Close-delimited: read until the server closes. Never decrypted.
    got = static_cast<long long>(response->size());
    if (out != nullptr) {
      out->swap(*response);
    } else {
      buffer->write(response->data(), response->size());
    }
    response->clear();
    for (;;) {
      // Checked here too, although only a length-delimited body used to be: a server that
      // never closes must not keep a finished stream's download alive.
      if (out == nullptr && should_finish != nullptr && should_finish->load()) {
        log_out("forced stream break. should finish");
        do_disconnect();
        break;
      }
      if (out == nullptr) wait_for_room(buffer, should_finish);
      const std::string chunk = receive(kBodyReadSize, kBodyTimeoutSeconds);
      if (chunk.empty()) break;
      if (out != nullptr) {
        if (out->size() + chunk.size() > kMaxStringBody) {
          log_err("Body too large");
          do_disconnect();
          *received = static_cast<unsigned long>(got);
          decrypt_ctx.reset();
          return false;
        }
        out->append(chunk);
      } else {
        buffer->write(chunk.data(), chunk.size());
      }
      got += static_cast<long long>(chunk.size());
    }
    *received = static_cast<unsigned long>(got);
  } else {
    decrypt_ctx.reset();
    log_err("Unsupported HTTP version");
    return false;
  }

  decrypt_ctx.reset();
  return true;
}

void UCurl::read_body_into_buffer(std::string* response, CBuffer* buffer, BodyFraming& framing,
                                  long long* got, const std::atomic<bool>* should_finish) {
  EVP_CIPHER_CTX* ctx = decrypt_ctx.get();
  if (ctx == nullptr) {
    buffer->write(response->data(), response->size());
  } else {
    const size_t need = std::max<size_t>(kDecryptRoom, response->size() + 32);
    if (decrypt_scratch_.size() < need) decrypt_scratch_.resize(need);
    int produced = 0;
    EVP_DecryptUpdate(ctx, decrypt_scratch_.data(), &produced, as_bytes(response->data()),
                      static_cast<int>(response->size()));
    buffer->write(reinterpret_cast<const char*>(decrypt_scratch_.data()),
                  static_cast<unsigned long>(produced));
  }
  response->clear();
  // Only decryption receives through the scratch block; a clear body goes straight into the
  // buffer, so a clear stream's segment client never touches (and keeps) those 128 KiB.
  if (ctx != nullptr && scratch_.size() < kBodyReadSize) scratch_.resize(kBodyReadSize);

  // Bounded by the framing and by each receive's time-out; a close-delimited body runs until
  // the close (or the stop flag), as an HTTP/1.0 one always has.
  while (framing.wants_more(*got)) {
    wait_for_room(buffer, should_finish);
    if (should_finish != nullptr && should_finish->load()) {
      log_out("forced stream break. should finish");
      do_disconnect();
      break;
    }
    long n = 0;
    if (ctx == nullptr) {
      // Clear data goes straight into the buffer's memory, and a chunked body is decoded there.
      char* room = nullptr;
      const unsigned long avail = buffer->write_get_available(&room);
      n = static_cast<long>(receive_stream(room, std::min(avail, kBodyReadSize)));
      if (n < 1) break;
      n = static_cast<long>(framing.take(room, static_cast<size_t>(n)));
      buffer->write_notify_written(static_cast<unsigned long>(n));
    } else {
      n = static_cast<long>(receive_stream(scratch_.data(), kBodyReadSize));
      if (n < 1) break;
      n = static_cast<long>(framing.take(scratch_.data(), static_cast<size_t>(n)));
      char* room = nullptr;
      unsigned long avail = buffer->write_get_available(&room);
      if (avail < kDecryptRoom) avail = buffer->write_get_available_newblock(&room);
      int produced = 0;
      EVP_DecryptUpdate(ctx, as_bytes(room), &produced, as_bytes(scratch_.data()),
                        static_cast<int>(n));
      buffer->write_notify_written(static_cast<unsigned long>(produced));
    }
    *got += n;
    stream_pos += static_cast<uint64_t>(n);
  }

  if (ctx != nullptr) {
    // Also after an early stop: whatever the context holds back is flushed (a cut body fails
    // the padding check and adds nothing).
    char* room = nullptr;
    const unsigned long avail = buffer->write_get_available(&room);
    if (avail < kDecryptFinalRoom) buffer->write_get_available_newblock(&room);
    int produced = 0;
    EVP_DecryptFinal_ex(ctx, as_bytes(room), &produced);
    buffer->write_notify_written(static_cast<unsigned long>(produced));
  }
}

void UCurl::wait_for_room(CBuffer* buffer, const std::atomic<bool>* should_finish) {
  if (buffer_limit != 0 && buffer->size.load(std::memory_order_relaxed) > buffer_limit) {
    paused_ += buffer->wait_for_room(buffer_limit, should_finish);
  }
}

bool UCurl::read_body_into_string(std::string* response, std::string* out, BodyFraming& framing,
                                  long long* got, const std::atomic<bool>* should_finish) {
  out->swap(*response);
  response->clear();
  while (framing.wants_more(*got)) {
    std::string chunk = receive(kBodyReadSize, kBodyTimeoutSeconds);
    if (chunk.empty()) break;
    if (should_finish != nullptr && should_finish->load()) {
      log_out("forced stream break. should finish");
      do_disconnect();
      break;
    }
    chunk.resize(framing.take(chunk.data(), chunk.size()));
    if (out->size() + chunk.size() > kMaxStringBody) {
      log_err("Body too large");
      do_disconnect();
      return false;
    }
    out->append(chunk);
    *got += static_cast<long long>(chunk.size());
  }
  return true;
}

int64_t UCurl::get_stream(std::string url, CBuffer* buffer, bool close_after, double& speed_kbit,
                          std::string key, const std::atomic<bool>* should_finish,
                          unsigned long from_bytes) {
  std::string response;
  stream_pos = 0;
  // A resumed segment continues where its bytes came from: the URL its redirects led to.
  if (url != stream_url_ || from_bytes == 0) {
    stream_url_ = url;
    stream_final_url_ = url;
  }
  try {
    // Status and header waits end once the stream is finishing, whatever the upstream does;
    // the body's reads stop at the flag by themselves.
    WaitLimit finishing(should_finish);
    refused_ = false;
    for (int call = 1;; ++call) {
      if (get_common(stream_final_url_, &response, true, from_bytes)) {
        stream_final_url_ = effective_url;
        break;
      }
      if (gave_up()) return -1;
      log_err("get_stream / get common failed - retry ", call);
      response.clear();
      if (call == kStreamCalls) return -1;
    }

    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    paused_ = std::chrono::nanoseconds(0);
    unsigned long received = 0;
    if (!get_read_body(&response, nullptr, buffer, &received, std::move(key), should_finish,
                       from_bytes != 0)) {
      return -1;  // the connection is left as it is
    }
    if (close_after) do_disconnect();
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);

    // Speed over the body transfer only (connection set-up, headers and waits for the reader
    // excluded), in kbit/s of 1024 bits. A 0 ms transfer gives inf (or NaN for 0 bytes);
    // callers saturate.
    const long usec_diff = (end.tv_nsec - start.tv_nsec) / 1000;
    const double elapsed_ms = static_cast<double>(end.tv_sec - start.tv_sec) * 1000.0 +
                              static_cast<double>(usec_diff) / 1000.0 -
                              std::chrono::duration<double, std::milli>(paused_).count();
    speed_kbit = static_cast<double>(received) * 8.0 * 1000.0 / elapsed_ms * (1.0 / 1024);
    return static_cast<int64_t>(received);
  } catch (const UCurlExceptionRecvError& e) {
    log_err("Excep: ", e.what());
    return -1;
  }
}

int64_t UCurl::get_stream(std::string url, CBuffer* buffer, bool close_after, double& speed_kbit,
                          unsigned long from_bytes) {
  return get_stream(std::move(url), buffer, close_after, speed_kbit, "", nullptr, from_bytes);
}

}  // namespace skerir
