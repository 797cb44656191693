// Lowers the scheduling priority of the process's background work (connection, refresh and
// fill threads call it as they start).
#pragma once

namespace skerir {

// setpriority(PRIO_PROCESS, getpid(), 30), clamped to the weakest priority. Linux keeps the
// nice value per thread and getpid() names the main thread, so the first call lowers the
// accept loop and every thread it creates afterwards inherits that: from the first connection
// on, the whole process runs at the weakest priority, as a process-wide setting would.
void lower_thread_priority();

}  // namespace skerir
