// Lowers the scheduling priority of background work (connection, refresh and fill threads).
#pragma once

namespace skerir {

// setpriority(PRIO_PROCESS, getpid(), 30); the value is clamped to the weakest priority.
void lower_thread_priority();

}  // namespace skerir
