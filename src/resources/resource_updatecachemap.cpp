#include "resources/resource_updatecachemap.h"

#include <unistd.h>

#include <csignal>
#include <string_view>

#include "cachemap/cachemap.h"
#include "main/response.h"

namespace skerir {
namespace {

constexpr std::string_view kUpdateReplyBody = "\"OK\"\n";

}  // namespace

ResourceUpdateCacheMap::ResourceUpdateCacheMap(int socket, std::string* chunk,
                                               std::string* playlist)
    : socket_(socket), chunk_(chunk), playlist_(playlist) {}

void ResourceUpdateCacheMap::serve() {
  std::signal(SIGPIPE, SIG_IGN);
  // The listener creates both maps before it accepts; the checks only keep a stray caller safe.
  if (chunk_ != nullptr && cache_map != nullptr) cache_map->setCacheMapString(*chunk_);
  if (playlist_ != nullptr && cache_map_playlist != nullptr) {
    cache_map_playlist->setCacheMapString(*playlist_);
  }
  Response(socket_, 200, "OK", "application/json").send();
  [[maybe_unused]] ssize_t n = ::write(socket_, kUpdateReplyBody.data(), kUpdateReplyBody.size());
}

}  // namespace skerir
