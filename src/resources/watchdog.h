// Liveness hook between the accept loop (check(), once per turn) and "GET /watchdog" (ping()).
// Both are deliberately empty; the flags are room for a future supervisor.
#pragma once

namespace skerir {

class Watchdog {
 public:
  Watchdog() = default;
  void check() {}
  void ping() {}

 private:
  [[maybe_unused]] bool pinged_ = false;
  [[maybe_unused]] bool expired_ = false;
};

}  // namespace skerir
