// Incremental decoder of an HTTP/1.1 "Transfer-Encoding: chunked" body, working in place: each
// call takes the next bytes received and moves the payload they hold to the front of the same
// memory. Payload never runs ahead of its framing, so the move is always backwards and a body
// can be received straight into its destination (the stream buffer) and decoded there.
//
// Chunk extensions and trailer fields are skipped. A size line or the trailer section longer
// than its bound, a size that is not hexadecimal or does not fit 64 bits, or a missing CRLF
// after a chunk fails the body; the caller treats that like a cut body. Bytes after the final
// blank line are ignored. One object per body, used by one thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace skerir {

class ChunkedDecoder {
 public:
  // A size line longer than this (extensions included) is not a size line.
  static constexpr size_t kMaxSizeLine = 4096;
  static constexpr size_t kMaxTrailer = 64 * 1024;

  // Decodes the `n` bytes at `data` and leaves the payload they carry at data[0, result).
  // Nothing is consumed once done() or failed().
  size_t decode(char* data, size_t n);

  bool done() const { return state_ == State::done; }
  bool failed() const { return state_ == State::failed; }

 private:
  enum class State {
    size,
    extension,
    size_lf,
    data,
    data_cr,
    data_lf,
    trailer,
    field,
    last_lf,
    done,
    failed
  };

  State state_ = State::size;
  uint64_t remaining_ = 0;  // of the current chunk; while reading a size line, the size so far
  int digits_ = 0;          // of the size line
  size_t line_ = 0;         // bytes of the current size line, or of the trailer section
};

}  // namespace skerir
