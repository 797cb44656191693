// The far end of a connection for fuzzing code that reads sockets: it sends a script of pieces,
// so that where a byte stream is cut between reads is part of the fuzz input rather than an
// accident of timing.
//
// A thread sends one piece, waits until the reader has consumed all of it, then sends the next;
// after the last piece it ends the stream. The reader owns the near end (take_reader()).
// Stopping the peer (destructor or stop()) before the script is done leaves the rest unsent.
//
// Kind of socket:
//   SOCK_SEQPACKET: each read returns exactly one piece. A read shorter than the piece would
//     lose the rest, so only for readers whose reads are larger than every piece.
//   SOCK_STREAM: nothing is ever lost, but a read still copying when its piece is consumed may
//     also take the start of the next one, so the cuts hold only mostly. For checks that must
//     hold whatever the cuts.
#pragma once

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "fuzz_check.h"

namespace skerir::fuzz {

class ScriptedPeer {
 public:
  ScriptedPeer(std::vector<std::string> pieces, int type) : pieces_(std::move(pieces)) {
    int sv[2];
    FUZZ_CHECK(::socketpair(AF_UNIX, type, 0, sv) == 0);
    reader_ = sv[0];
    writer_ = sv[1];
    thread_ = std::thread([this] { run(); });
  }
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;
  ~ScriptedPeer() {
    stop();
    if (reader_ >= 0) ::close(reader_);
    ::close(writer_);
  }

  // Hands the near end to the reader, who closes it.
  int take_reader() {
    const int fd = reader_;
    reader_ = -1;
    return fd;
  }

  void stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }

  // After stop(): the bytes the reader never got, given the near end if it is still open.
  // (Pieces are at most this buffer's size.)
  std::string unread(int reader_fd) const {
    std::string rest;
    char buf[4096];
    while (reader_fd >= 0) {
      const ssize_t n = ::recv(reader_fd, buf, sizeof(buf), MSG_DONTWAIT);
      if (n <= 0) break;
      rest.append(buf, static_cast<size_t>(n));
    }
    for (size_t i = sent_; i < pieces_.size(); ++i) rest += pieces_[i];
    return rest;
  }

 private:
  // Bytes sent and not yet read by the other end (as socket memory: 0 means none).
  int queued() const {
    int n = 0;
    return ::ioctl(writer_, SIOCOUTQ, &n) == 0 ? n : 0;
  }

  void run() {
    // Bounds the wait for a reader that stopped reading without closing; the code under test
    // gives up on a silent peer after a few seconds anyway.
    constexpr auto kReaderGone = std::chrono::seconds(10);
    for (const std::string& piece : pieces_) {
      if (stop_) return;
      if (::send(writer_, piece.data(), piece.size(), MSG_NOSIGNAL) !=
          static_cast<ssize_t>(piece.size())) {
        return;  // the reader closed its end
      }
      ++sent_;
      const auto deadline = std::chrono::steady_clock::now() + kReaderGone;
      while (queued() > 0 && !stop_ && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
      }
    }
    ::shutdown(writer_, SHUT_WR);
  }

  std::vector<std::string> pieces_;
  int reader_ = -1;
  int writer_ = -1;
  std::atomic<bool> stop_{false};
  std::atomic<size_t> sent_{0};
  std::thread thread_;
};

// Cuts `bytes` into the pieces a fuzz input asks for: `cuts` gives the first lengths (0 is
// taken as 1), the rest goes in pieces of `rest_piece` bytes (at most 4,096).
inline std::vector<std::string> cut(const std::string& bytes, const std::vector<uint8_t>& cuts,
                                    size_t rest_piece) {
  std::vector<std::string> pieces;
  size_t at = 0;
  for (uint8_t c : cuts) {
    if (at >= bytes.size()) break;
    const size_t n = c == 0 ? 1 : c;
    pieces.push_back(bytes.substr(at, n));
    at += n;
  }
  for (; at < bytes.size(); at += rest_piece) pieces.push_back(bytes.substr(at, rest_piece));
  return pieces;
}

}  // namespace skerir::fuzz
