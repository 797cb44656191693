#include "hls/master_playlist.h"

#include <sstream>
#include <utility>

#include "hls/playlist_text.h"
#include "util/log.h"
#include "util/strings.h"

namespace skerir {
namespace {

constexpr std::string_view kStreamInf = "#EXT-X-STREAM-INF:";
constexpr std::string_view kBandwidth = "BANDWIDTH";

}  // namespace

MasterPlaylist::MasterPlaylist(std::string master_url, CBuffer* stream_buffer,
                               unsigned long max_buffer_bytes, Stats* process_stats, int start_from)
    : url(std::move(master_url)),
      buffer(stream_buffer),
      max_buffer_size(max_buffer_bytes),
      startFrom(start_from),
      stats(process_stats) {}

bool MasterPlaylist::parse_playlist(std::string* text) {
  variants.clear();
  uint64_t bandwidth = 0;

  std::istringstream in(*text);
  if (!playlist_text::read_header(in)) return false;
  std::string line;
  while (std::getline(in, line)) {
    if (playlist_text::starts_with(line, kStreamInf)) {
      const auto value = playlist_text::attribute(trim(line).substr(kStreamInf.size()), kBandwidth);
      if (!value) {
        log_err("Variant does not specify bandwidth!");
        return false;
      }
      bandwidth = static_cast<uint64_t>(playlist_text::number_at(*value, 0));
    } else if (!trim(line).empty() && line[0] != '#') {
      // Every URI line is a variant, with the bandwidth of the last stream-info tag before it
      // (two URIs after one tag are two variants). Other tags (renditions, I-frame playlists,
      // the version), comments and blank lines name no variant.
      variants.push_back(PlaylistVariantDef{
          bandwidth, playlist_text::resolve(base_url.empty() ? url : base_url, line), false});
    }
  }
  return true;
}

}  // namespace skerir
