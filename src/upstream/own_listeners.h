// skerir's own listening sockets, as seen from its upstream side. An upstream request to one of
// them would come back into skerir: a playlist naming skerir's own "/stream?url=<itself>" makes
// every stream open the next, without end. The listener records each socket it binds; the
// upstream client refuses to connect to any of them.
//
// Threading: any thread; one mutex (`g_listeners_mutex` in the .cpp) guards the list.
#pragma once

#include <sys/socket.h>

namespace skerir {

// Records a socket bound to `address` (its real port, not 0). A wildcard address (0.0.0.0, ::)
// stands for every address of this host: loopback and the interfaces' addresses.
void add_own_listener(const sockaddr* address);

// Whether connecting to `address` (with its port) would reach one of skerir's own listeners.
bool is_own_listener(const sockaddr* address);

}  // namespace skerir
