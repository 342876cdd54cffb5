// Work the library leaves running on threads of its own after a call has
// returned: downloads that a page or a stylesheet stopped waiting for. Such
// a thread counts itself here from before it starts until its last step.
//
// A program that ends while such work runs would tear down the HTTP and TLS
// libraries under it, so a program's end first calls StopBackgroundWork:
// running transfers are then ended at their next progress check (within
// about a second) and the call waits until the last thread is done. The
// command-line tool and the test binary do so. Thread-safe.
#ifndef ZELVARPACK_CORE_BACKGROUND_WORK_H_
#define ZELVARPACK_CORE_BACKGROUND_WORK_H_

#include <chrono>

namespace zelvarpack {

// One more / one fewer thread of background work.
void BeginBackgroundWork();
void EndBackgroundWork();

// True while StopBackgroundWork runs: transfers give up.
bool BackgroundWorkStopping();

// Asks background work to stop and waits until none runs or `timeout`
// passes. Returns whether none runs. Work started afterwards runs as usual.
bool StopBackgroundWork(std::chrono::milliseconds timeout);

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_BACKGROUND_WORK_H_
