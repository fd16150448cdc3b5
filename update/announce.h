// What is told without being asked. To the system log: that the daemon is up, how each run
// went and when the next one comes, and that an app could not use what it got; a line
// each, so that a device that works writes one a day. After each run to the file of
// figures, too (update/metrics.h).
#pragma once

// Start-up, before the loops run: from now on runs and answers are announced.
void announce_init();

// The daemon serves, with its configuration. Main thread.
void announce_start();
