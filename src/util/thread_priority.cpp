#include "util/thread_priority.h"

#include <sys/resource.h>
#include <unistd.h>

namespace skerir {

void lower_thread_priority() { setpriority(PRIO_PROCESS, getpid(), 30); }

}  // namespace skerir
