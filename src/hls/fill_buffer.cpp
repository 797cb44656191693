// One download pass of a stream: the fill thread started by each playlist refresh.
#include <algorithm>
#include <limits>

#include "buffer/cbuffer.h"
#include "hls/master_playlist.h"
#include "resources/resource_stats.h"
#include "upstream/ucurl.h"
#include "util/log.h"
#include "util/metrics.h"
#include "util/thread_priority.h"

namespace skerir {
namespace {

constexpr double kRefreshShare = 0.65;  // of the target duration, until the next refresh
constexpr int kChunkRetries = 3;        // after the first attempt
constexpr int kMaxFailedChunks = 4;     // consecutive dropped chunks that end the stream
constexpr int kMaxEmptyReloads = 6;     // consecutive passes without a new chunk
constexpr size_t kAesKeyBytes = 16;

// A measured speed as a whole number of kbit/s. A 0 ms transfer measures as infinity and an
// empty one as NaN; both must convert without undefined behaviour.
uint64_t saturate_speed(double speed) {
  if (!(speed > 0)) return 0;
  if (speed >= 18446744073709551615.0) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(speed);
}

}  // namespace

bool MasterPlaylist::fetch_key(const std::string& from) {
  log_out("getting new decryption key from: ", from);
  key_url = from;
  count(metrics().key_fetches);
  WaitLimit limit(&should_finish, WaitLimit::Clock::now() + kFetchDeadline);
  UCurl client;
  client.extra_headers = upstream_headers;
  if (client.get(from, &key) && key.size() >= kAesKeyBytes) {
    key.resize(kAesKeyBytes);  // keys served with a trailing newline exist
    return true;
  }
  log_err("no usable decryption key from ", from);
  key.clear();
  key_url.clear();  // asked for again by the next attempt
  return false;
}

void* do_masterplaylist_fill_buffer(void* arg) {
  auto* mpl = static_cast<MasterPlaylist*>(arg);
  lower_thread_priority();
  try {
    mpl->fill_buffer();
  } catch (const std::exception& e) {
    // Only this stream ends; the timer sees fill_running clear and should_finish set.
    log_err("Excep: ", e.what());
    mpl->should_finish = true;
    mpl->fill_running = false;
  }
  // Until the next pass nothing is written: the reader may release the block once it has sent
  // it, and it wakes to see whether the stream has ended.
  mpl->buffer->write_pause();
  return nullptr;
}

bool MasterPlaylist::fill_buffer() {
  enum class Exit { kQueueDone, kBufferFull, kSpeedEvent };
  constexpr auto relaxed = std::memory_order_relaxed;
  std::queue<Chunk>& chunks = variant->chunks;
  const uint32_t target_duration = variant->target_duration;

  log_out("fill buffer for", selected->bandwidth);
  if (chunks.empty()) log_out("playlist chunks empty");
  if (should_finish) log_out("playlist chunks - should_finish");
  refresh_countdown = static_cast<int32_t>(target_duration * kRefreshShare);

  // An encoder that restarts numbers its segments afresh: a window that lies wholly below the
  // last segment delivered would be skipped for ever. Carry on from the start of the new one.
  if (!chunks.empty() && chunks.back().sequence < last_seq) {
    log_err("media sequence went back from ", last_seq, " to ", chunks.front().sequence,
            "; continuing from the new window");
    last_seq = chunks.front().sequence > 0 ? chunks.front().sequence - 1 : 0;
  }

  log_out("start from: ", startFrom);
  const int64_t skip = startFrom >= 0 ? startFrom : static_cast<int64_t>(chunks.size()) + startFrom;
  startFrom = 0;  // only the first pass of a stream skips
  log_out("searching for new chunks (last seq got ", last_seq, ")");

  int64_t position = 0;
  bool progress = false;
  Exit exit = Exit::kQueueDone;
  while (!chunks.empty() && !should_finish) {
    const Chunk chunk = chunks.front();
    if (position < skip) {
      log_out("skipping chunk from ", chunk.url, " as required by startFrom");
      chunks.pop();
      ++position;
      continue;
    }
    if (buffer->size.load() >= max_buffer_size) {
      log_out("buffer is full - not downloading more chunks ...");
      exit = Exit::kBufferFull;  // the front chunk stays queued for the next pass
      break;
    }
    chunks.pop();
    ++position;
    // Already delivered. Since last_seq starts at 0, a chunk numbered 0 is never fetched:
    // deliberate, and playlists served to this proxy number their segments from 1.
    if (chunk.sequence <= last_seq) continue;
    if (!chunk.unplayable.empty()) {
      // Sending what a client cannot decode would look like a working stream that plays
      // nothing; ending it says what is wrong.
      log_err("cannot play ", chunk.url, ": ", chunk.unplayable, "; finishing stream");
      should_finish = true;
      break;
    }

    double speed = 0;
    int64_t received = -1;
    // A byte range starts at its offset; a whole resource at 0, as a request without Range.
    const uint64_t first_byte = chunk.range_length > 0 ? chunk.range_offset : 0;
    uint64_t from_bytes = first_byte;
    curl.segment_iv = chunk.iv;
    curl.range_end = chunk.range_length > 0 ? chunk.range_offset + chunk.range_length : 0;
    for (int attempt = -1;;) {
      log_out("getting chunk from ", chunk.url);
      // Without its key a chunk is a failed attempt: sent as it is, it would be ciphertext.
      const bool keyed = chunk.key_url.empty() || (chunk.key_url == key_url && !key.empty()) ||
                         fetch_key(chunk.key_url);
      if (keyed) {
        // A clear chunk keeps the key for the encrypted ones after it.
        received = curl.get_stream(chunk.url, buffer, false, speed,
                                   chunk.key_url.empty() ? "" : key, &should_finish, from_bytes);
        if (received != -1) break;
      }
      log_err("chunk get from ", chunk.url, " FAILED");
      if (++attempt >= kChunkRetries || should_finish) break;
      sleep_unless_finishing(std::chrono::seconds(1));
      if (keyed) from_bytes = std::max<uint64_t>(curl.stream_pos, first_byte);
      log_err("retry chunk get from ", chunk.url, " starting from byte ", from_bytes);
      if (from_bytes != first_byte) count(metrics().segment_resumes);
    }

    if (received == -1) counters->segment_failed();
    if (received != -1) {
      failed_chunks = 0;
      log_out("got chunk (seq ", chunk.sequence, ") from ", chunk.url, " with size ", received,
              ", speed ", speed, " kbps");
      last_seq = chunk.sequence;
      if (chunk.is_last) should_finish = true;

      const uint64_t s = saturate_speed(speed);
      counters->segment_fetched(s);
      if (!stats->record_segment(s, buffer->size.load(), selected->bandwidth)) {
        log_err("sudden speed drop! falling down immediately!");
        exit = Exit::kSpeedEvent;
        break;
      }
    } else if (++failed_chunks == kMaxFailedChunks) {
      log_err("too many failed subsequent chunks. Finishing stream.");
      should_finish = true;
    }

    const uint64_t avg = stats->avg_speed.load(relaxed);
    if (avg < boundary_low >> 10 || avg >= boundary_high >> 10) {
      log_out("avg_speed out of boundaries! (", avg, " ", boundary_low >> 10, " ",
              boundary_high >> 10, ")");
      exit = Exit::kSpeedEvent;
      break;
    }
    progress = true;
  }

  switch (exit) {
    case Exit::kQueueDone:
      if (progress) {
        empty_reloads = 0;
      } else {
        refresh_countdown = static_cast<int32_t>(target_duration / 4);
        if (++empty_reloads == kMaxEmptyReloads) {
          log_err("no new chunks in many playlist reloads");
          should_finish = true;
        }
      }
      break;
    case Exit::kBufferFull:
      empty_reloads = 0;
      waiting_for_room = true;
      break;
    case Exit::kSpeedEvent:
      refresh_countdown = 0;  // the timer reselects at its next tick
      empty_reloads = 0;
      break;
  }
  // Last action: from here on the timer may reselect and replace `variant`.
  fill_running = false;
  return true;
}

}  // namespace skerir
