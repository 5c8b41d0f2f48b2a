// vn::parallelFor: runs a function over the numbers 0..count-1 on a small
// pool of worker threads shared by the process, the calling thread taking
// part, and returns when every call has finished. Calls for one job may run
// in any order and at the same time; jobs from several threads at once are
// fine (each waits for its own). threads = 0 uses every core, 1 runs
// everything on the caller.
#pragma once

#include <functional>

namespace vn {

// The number of threads threads = 0 stands for (the machine's cores).
int hardwareThreads();

void parallelFor(int count, int threads, const std::function<void(int)>& fn);

}  // namespace vn
