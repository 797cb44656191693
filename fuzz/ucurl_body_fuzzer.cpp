// Fuzzes the upstream client's body reader: a scripted server sends a body in fuzzed pieces,
// clear or AES-128-CBC encrypted, length-delimited or not, into a stream buffer that already
// holds a fuzzed amount (so the body crosses block boundaries anywhere) or into a string.
// Whatever the cuts, the buffer must end up with exactly the bytes (or the plaintext of the
// bytes) the reader counted as received, and the bytes it did not take must still be unread.
//
// Input header (12 bytes), then n piece lengths, then the body:
//   [0]     flags: bits 0-1 version (0 HTTP/1.0, 1 HTTP/1.1, 2-3 neither), bit 2 encrypted,
//           bit 3 into a string, bit 4 stop flag set, bit 5 no Content-Length,
//           bit 6 Content-Range, bit 7 resume a cut decryption
//   [1..4]  Content-Length, signed 32-bit
//   [5..7]  bytes already in the buffer, 24-bit, modulo three blocks
//   [8]     body bytes that came with the headers
//   [9]     body bytes decrypted before the cut, when resuming
//   [10]    piece count n (modulo 16)
//   [11]    unused
#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "buffer/cbuffer.h"
#include "fuzz_check.h"
#include "scripted_peer.h"
#include "upstream/ucurl.h"

namespace {

using skerir::CBuffer;
using skerir::fuzz::ScriptedPeer;

constexpr size_t kHeader = 12;
constexpr size_t kMaxCuts = 16;
constexpr size_t kRestPiece = 1024;
constexpr uint64_t kMaxFill = 3 * skerir::kCBlockSize;
constexpr uint64_t kRangeStart = 5000;
const std::string kKey = "0123456789abcdef";
constexpr char kFill = 'F';

// The whole of `cipher` decrypted in one go: what any cutting of it must also give.
std::string decrypt(const std::string& cipher) {
  std::unique_ptr<EVP_CIPHER_CTX, skerir::UCurl::CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
  unsigned char iv[16] = {};
  EVP_DecryptInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr,
                     reinterpret_cast<const unsigned char*>(kKey.data()), iv);
  std::string out(cipher.size() + 32, '\0');
  int n = 0;
  int tail = 0;
  EVP_DecryptUpdate(ctx.get(), reinterpret_cast<unsigned char*>(out.data()), &n,
                    reinterpret_cast<const unsigned char*>(cipher.data()),
                    static_cast<int>(cipher.size()));
  EVP_DecryptFinal_ex(ctx.get(), reinterpret_cast<unsigned char*>(out.data()) + n, &tail);
  out.resize(static_cast<size_t>(n + tail));
  return out;
}

std::string drain(CBuffer& buffer) {
  // An abandoned empty block costs the reader one call that returns nothing.
  constexpr int kMaxFruitlessReads = 64;
  std::string out;
  int fruitless = 0;
  while (buffer.size > 0) {
    char* at = nullptr;
    const uint64_t n = buffer.read_get_available(&at);
    if (n == 0) {
      FUZZ_CHECK(++fruitless <= kMaxFruitlessReads);
      continue;
    }
    out.append(at, n);
    buffer.read_notify_read(n);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kHeader) return 0;
  const uint8_t flags = data[0];
  const int version = flags & 3;
  const bool encrypted = flags & 4;
  const bool into_string = flags & 8;
  // The stop flag is only ever given with a buffer (the segment download).
  const bool stop = (flags & 16) && !into_string;
  const bool has_length = !(flags & 32);
  const bool has_range = flags & 64;
  const bool resume = (flags & 128) && encrypted && !into_string;
  int32_t length;
  std::memcpy(&length, data + 1, sizeof(length));
  const uint64_t fill = (data[5] | (data[6] << 8) | (uint64_t{data[7]} << 16)) % kMaxFill;
  const size_t n_cuts = std::min<size_t>(data[10] % kMaxCuts, size - kHeader);
  const std::vector<uint8_t> cuts(data + kHeader, data + kHeader + n_cuts);
  std::string body(reinterpret_cast<const char*>(data) + kHeader + n_cuts, size - kHeader - n_cuts);

  // Resuming: the first bytes went through the cipher in an earlier, interrupted read.
  std::string before_cut;
  skerir::UCurl client;
  std::string plain_before_cut;
  if (resume) {
    before_cut = body.substr(0, data[9]);
    body.erase(0, before_cut.size());
    client.decrypt_ctx.reset(EVP_CIPHER_CTX_new());
    unsigned char iv[16] = {};
    EVP_DecryptInit_ex(client.decrypt_ctx.get(), EVP_aes_128_cbc(), nullptr,
                       reinterpret_cast<const unsigned char*>(kKey.data()), iv);
    std::string out(before_cut.size() + 32, '\0');
    int n = 0;
    EVP_DecryptUpdate(client.decrypt_ctx.get(), reinterpret_cast<unsigned char*>(out.data()), &n,
                      reinterpret_cast<const unsigned char*>(before_cut.data()),
                      static_cast<int>(before_cut.size()));
    plain_before_cut = out.substr(0, static_cast<size_t>(n));
  }
  std::string response = body.substr(0, data[8]);
  const size_t with_headers = response.size();
  const std::vector<std::string> pieces =
      skerir::fuzz::cut(body.substr(response.size()), cuts, kRestPiece);

  // Clear bytes are read into whatever room the block has left, often less than a piece.
  ScriptedPeer peer(pieces, SOCK_STREAM);
  client.sock.reset(peer.take_reader());
  client.http11 = version;
  if (has_length) client.headers.push_back({"Content-Length", std::to_string(length)});
  if (has_range) client.headers.push_back({"Content-Range", "bytes 5000-9999/10000"});

  CBuffer buffer;
  const std::string filler(fill, kFill);
  buffer.write(filler.data(), filler.size());
  std::string out = "stale";
  const std::atomic<bool> should_finish{stop};
  unsigned long received = 12345;
  const bool ok = client.get_read_body(&response, into_string ? &out : nullptr, &buffer, &received,
                                       encrypted ? kKey : "", &should_finish, resume);
  const bool still_open = client.sock.valid();
  peer.stop();

  // Only a version the reader does not know and a missing length fail, and they read nothing.
  FUZZ_CHECK(ok == (version == 0 || (version == 1 && has_length)));
  FUZZ_CHECK(!client.decrypt_ctx);  // every normal return frees the cipher context
  const std::string in_buffer = drain(buffer);
  FUZZ_CHECK(in_buffer.compare(0, filler.size(), filler) == 0);
  const std::string written = in_buffer.substr(std::min(in_buffer.size(), filler.size()));
  if (!ok) {
    FUZZ_CHECK(received == 0 && written.empty() && (!into_string || out.empty()));
    return 0;
  }

  // The reader takes whole reads: all of the body when the server closes, otherwise until
  // the length is reached (or at once when asked to stop).
  FUZZ_CHECK(received <= body.size());
  const std::string taken = body.substr(0, received);
  const uint64_t wanted = version == 0 ? body.size() : std::max<int64_t>(length, 0);
  if (!stop) FUZZ_CHECK(received >= std::min<uint64_t>(wanted, body.size()));
  if (stop) FUZZ_CHECK(received == with_headers);
  // Once the length is reached, no further read: the overshoot is at most one read.
  if (version == 1) {
    FUZZ_CHECK(received <= std::max<uint64_t>(wanted, with_headers) + skerir::kBodyReadSize);
  }
  if (still_open) FUZZ_CHECK(peer.unread(client.sock.get()) == body.substr(received));
  if (version == 1) {
    // Where a resumed download would start; only segments resume, so a body read into a
    // string counts just the bytes that came with the headers.
    const uint64_t counted = into_string ? with_headers : received;
    FUZZ_CHECK(client.stream_pos == (has_range ? kRangeStart : 0) + counted);
  }

  if (into_string) {
    FUZZ_CHECK(out == taken && written.empty());
  } else if (encrypted && version == 1) {
    // Decryption is the same whatever the cuts, the resumption included.
    FUZZ_CHECK(plain_before_cut + written == decrypt(before_cut + taken));
  } else {
    FUZZ_CHECK(written == taken);
  }
  return 0;
}
