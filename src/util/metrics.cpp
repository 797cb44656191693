#include "util/metrics.h"

namespace skerir {

Metrics& metrics() {
  // Constant-initialised and trivially destructible: usable from any thread at any time,
  // including detached threads still counting while the process exits.
  static constinit Metrics process_metrics;
  return process_metrics;
}

}  // namespace skerir
