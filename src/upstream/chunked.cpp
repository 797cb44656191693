#include "upstream/chunked.h"

#include <algorithm>
#include <cstring>

namespace skerir {
namespace {

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

constexpr int kMaxSizeDigits = 16;  // 64 bits

}  // namespace

size_t ChunkedDecoder::decode(char* data, size_t n) {
  size_t out = 0;
  // Every pass consumes at least one input byte, or ends the loop.
  for (size_t i = 0; i < n && state_ != State::done && state_ != State::failed;) {
    if (state_ == State::data) {
      const size_t take = static_cast<size_t>(std::min<uint64_t>(remaining_, n - i));
      std::memmove(data + out, data + i, take);
      out += take;
      i += take;
      remaining_ -= take;
      if (remaining_ == 0) state_ = State::data_cr;
      continue;
    }
    const char c = data[i++];
    const State was = state_;
    // Lines end in CRLF; a bare LF is taken as well, as lenient clients do.
    const bool end_of_line = c == '\n' || c == '\r';
    switch (state_) {
      case State::size:
      case State::extension:
        if (++line_ > kMaxSizeLine) {
          state_ = State::failed;
        } else if (end_of_line) {
          state_ = digits_ == 0 ? State::failed : c == '\r' ? State::size_lf : State::data;
        } else if (state_ == State::extension) {
          // skipped up to the end of the line
        } else if (const int v = hex_value(c); v >= 0 && digits_ < kMaxSizeDigits) {
          remaining_ = remaining_ * 16 + static_cast<uint64_t>(v);
          ++digits_;
        } else {
          state_ =
              (c == ';' || c == ' ' || c == '\t') && digits_ > 0 ? State::extension : State::failed;
        }
        break;
      case State::size_lf:
        state_ = c == '\n' ? State::data : State::failed;
        break;
      case State::data_cr:
        state_ = c == '\r' ? State::data_lf : c == '\n' ? State::size : State::failed;
        break;
      case State::data_lf:
        state_ = c == '\n' ? State::size : State::failed;
        break;
      case State::trailer:  // at the start of a trailer line, or of the final blank line
        state_ = c == '\r' ? State::last_lf : c == '\n' ? State::done : State::field;
        break;
      case State::field:
        if (c == '\n') state_ = State::trailer;
        break;
      case State::last_lf:
        state_ = c == '\n' ? State::done : State::failed;
        break;
      default:
        break;
    }
    if (state_ == State::size && (was == State::data_cr || was == State::data_lf)) {
      line_ = 0;  // a new size line starts
      digits_ = 0;
    } else if (state_ == State::data && remaining_ == 0) {
      state_ = State::trailer;  // the last chunk: its size line is done
      line_ = 0;
    } else if ((state_ == State::trailer || state_ == State::field) && ++line_ > kMaxTrailer) {
      state_ = State::failed;
    }
  }
  return out;
}

}  // namespace skerir
