// "/stream" and "/stream.ts": runs one stream on the connection's thread.
//
// Sends the 200 header, creates the stream's CBuffer and MasterPlaylist, starts the engine,
// then drains the buffer to the client (the buffer's single reader) until the engine has
// finished and the buffer is empty, the client has gone, or no data came for 15 seconds.
// Always finishes the engine (joining its threads) before returning. Never closes the socket.
#pragma once

#include <string>

namespace skerir {

struct Stats;

inline constexpr unsigned long kStreamWriteSlice = 131071;  // bytes per write to the client
inline constexpr double kStreamNoDataSeconds = 15.0;

class ResourceStream {
 public:
  // `url` may be null (request without the parameter); it must outlive serve().
  ResourceStream(std::string* url, int socket, unsigned long max_buffer_size, Stats* stats,
                 int startFrom);
  void serve();

 private:
  // Writes the whole slice, carrying on after a write the send time-out cut short: a client
  // that paused for longer than that must not miss the rest of the slice, which would corrupt
  // its transport stream. False when the client is gone.
  bool write_slice(const char* p, unsigned long len) const;

  std::string* url_;
  int socket_;
  unsigned long max_buffer_size_;
  Stats* stats_;
  int startFrom_;
};

}  // namespace skerir
