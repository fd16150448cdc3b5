// The daemon's two loops. Each turns for as long as the process lives: a task that must be
// there and can't be added is tried again until it can, or the process ends for the service
// manager to start it anew; and the watchdog is fed only while both loops turn. So the
// daemon is never alive and useless.
// Threads: as each call says.
#pragma once

#include "frame/platform/tq_thread.h"

// Fetches and calls the loop's tasks, on the thread that made the loop. Returns only when
// the loop can't go on; true when it has run a task before.
bool loop_run(tq_thread_master* master);

// Adds a task that must be there; false when that failed. argument is the one given here.
using LoopArm = bool (*)(void* argument);

// The task could not be added: arm is called again, with pauses, before the loop of the
// calling thread waits for its next task. When it fails for seconds, the process ends.
void loop_owe(LoopArm arm, void* argument);

// The part of loop_run that does so.
void loop_settle();

// The calling thread's loop counts from now on. One thread, the admin thread; the main loop
// feeds the watchdog and needs no other witness.
void loop_watch();

// As long as it lives, so does the update run, of which there is one at a time, on whatever
// thread: one that never ended would keep all others out.
class LoopRunWatch {
  public:
    LoopRunWatch();
    ~LoopRunWatch();
    LoopRunWatch(const LoopRunWatch&) = delete;
    LoopRunWatch& operator=(const LoopRunWatch&) = delete;

  private:
    bool own_loop_;  // the thread counts anyway
};

// The loop turns, the run goes on: for whatever waits during a run. Any thread; those that
// are not watched don't count.
void loop_turned();

// False when a watched thread was last heard of too long ago. Any thread.
[[nodiscard]] bool loop_turns();
