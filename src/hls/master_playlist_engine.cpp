// The lifecycle of one stream's engine: the start, the refresh-timer thread, the start of
// each fill pass, and the teardown.
#include <algorithm>
#include <cstdint>
#include <system_error>

#include "buffer/cbuffer.h"
#include "hls/master_playlist.h"
#include "upstream/ucurl.h"
#include "util/log.h"
#include "util/thread_priority.h"

namespace skerir {
namespace {

constexpr size_t kCachedPlaylistChunks = 5;  // queued chunks that make a refetch unnecessary

}  // namespace

bool VariantPlaylist::refresh() {
  log_out("Chunklist: refresh variant");
  UCurl client;
  client.extra_headers = headers;
  std::string text;
  if (!client.get(url, &text)) return false;
  base_url = client.effective_url;
  parse_playlist(&text);
  // A text that is not a playlist leaves the queue empty and so counts as a failure.
  return !chunks.empty();
}

bool MasterPlaylist::start_refreshing() {
  log_out("start_refreshing");
  if (!refresh()) return false;
  curl.extra_headers = upstream_headers;
  curl.buffer_limit = max_buffer_size + std::min(kBufferAllowance, UINT64_MAX - max_buffer_size);
  last_seq = 0;
  key_url.clear();
  key.clear();
  refresh_countdown = 0;
  try {
    refresh_thread = std::thread(do_refresh_timer, this);
  } catch (const std::system_error& e) {
    log_err("Excep: ", e.what());
    return false;
  }
  return true;
}

bool MasterPlaylist::refresh() {
  log_out("Refreshing ... ");
  WaitLimit limit(&should_finish, WaitLimit::Clock::now() + kFetchDeadline);
  UCurl client;
  client.extra_headers = upstream_headers;
  std::string text;
  if (!client.get(url, &text)) {
    log_out("failed to get master playlist");
    return false;
  }
  base_url = client.effective_url;
  log_out("got master playlist");
  // Channel lists often name a media playlist directly: it is then the only variant, and the
  // text already fetched starts the first pass.
  const bool media = text.find("#EXTINF") != std::string::npos &&
                     text.find("#EXT-X-STREAM-INF") == std::string::npos;
  if (media) {
    variants = {PlaylistVariantDef{0, url, false}};
  } else {
    parse_playlist(&text);  // whatever it yields is what selection chooses from
  }
  selected = nullptr;
  boundary_low = 0;
  boundary_high = 0;
  if (!select_variant()) return false;
  if (media) {
    variant->base_url = base_url;
    variant->parse_playlist(&text);
    variant->fresh = true;
  }
  return true;
}

void* do_refresh_timer(void* arg) {
  auto* mpl = static_cast<MasterPlaylist*>(arg);
  lower_thread_priority();
  try {
    mpl->refresh_timer();
  } catch (const std::exception& e) {
    log_err("Excep: ", e.what());
    mpl->should_finish = true;
  }
  // The timer ends only once should_finish is set; the stream's reader sleeps until told.
  mpl->buffer->wake_reader();
  return nullptr;
}

bool MasterPlaylist::refresh_timer() {
  log_out("refresh timer called");
  if (should_finish) return true;
  do {
    // After a pass that stopped at a full buffer, the next one starts once there is room again:
    // with long segments, sitting out the whole countdown could leave the client without data
    // for longer than the stream's no-data limit.
    if (waiting_for_room && buffer->size.load() < max_buffer_size) {
      waiting_for_room = false;
      refresh_countdown = 0;
    }
    if (refresh_countdown > 0) {
      log_out("not yet refresh time: ", refresh_countdown.load());
      --refresh_countdown;
    } else if (fill_running) {
      log_out("refresh will not be done at this time - still running");
    } else {
      log_out("refresh ...");
      if (!select_variant()) {
        should_finish = true;
      } else if (!refresh_variant()) {
        log_err("marking this variant as invalid");
        selected->invalid = true;
        refresh_countdown = 0;
        continue;  // reselect among the remaining variants at once, without the tick
      }
    }
    sleep_unless_finishing(std::chrono::seconds(1));
  } while (!should_finish);
  return true;
}

bool MasterPlaylist::refresh_variant() {
  fill_running = true;  // first, so the timer cannot start another refresh meanwhile
  if (fill_thread.joinable()) fill_thread.join();

  if (variant && variant->fresh) {
    variant->fresh = false;  // parsed from the text that started the stream
  } else if (variant && variant->chunks.size() >= kCachedPlaylistChunks) {
    log_err("Chunklist: Using cached playlist (still got ", variant->chunks.size(),
            " chunks in advance)");
  } else if (WaitLimit limit(&should_finish, WaitLimit::Clock::now() + kFetchDeadline);
             !variant->refresh()) {
    fill_running = false;
    log_err("Unable to refresh variant of playlist");
    return false;
  }
  try {
    fill_thread = std::thread(do_masterplaylist_fill_buffer, this);
  } catch (const std::system_error& e) {
    log_err("Excep: ", e.what());
    fill_running = false;
  }
  return true;
}

void MasterPlaylist::sleep_unless_finishing(std::chrono::milliseconds duration) {
  std::unique_lock lock(wake_mutex);
  wake.wait_for(lock, duration, [this] { return should_finish.load(); });
}

MasterPlaylist::~MasterPlaylist() { finish(); }

void MasterPlaylist::finish() {
  {
    std::lock_guard lock(wake_mutex);
    should_finish = true;
  }
  wake.notify_all();
  // The timer first: once it has ended, nobody can start another fill thread, so the fill
  // thread joined next is the last one.
  if (refresh_thread.joinable()) refresh_thread.join();
  if (fill_thread.joinable()) fill_thread.join();
}

}  // namespace skerir
