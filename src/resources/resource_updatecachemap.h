// The "/update-cache-map" endpoint: replaces the segment map with the "chunk" text, the
// playlist map with the "playlist" text, or both, and answers with a fixed JSON body.
// Runs once on the requesting connection's thread; never closes the socket.
#pragma once

#include <string>

namespace skerir {

class ResourceUpdateCacheMap {
 public:
  // `chunk` and `playlist` are the decoded parameter values, or null when a parameter is
  // absent. They belong to the Request and must outlive serve().
  ResourceUpdateCacheMap(int socket, std::string* chunk, std::string* playlist);

  // Applies "chunk" first, then "playlist" (an empty text empties that map), then writes the
  // 200 header and the body. The texts are not validated; the answer is always the same.
  void serve();

 private:
  int socket_;
  std::string* chunk_;
  std::string* playlist_;
};

}  // namespace skerir
