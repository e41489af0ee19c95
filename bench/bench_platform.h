#pragma once

// What the benchmarks read from the operating system about their own process.

namespace corv::bench {

// User plus system CPU time of this process so far, in seconds.
double cpu_seconds();

// The process's resident memory now, and its peak so far, in MiB; -1 when
// the system does not say.
double resident_mb();
double peak_resident_mb();

// Asks this process to stop the way the system asks a program to: SIGTERM on
// Unix; on Windows, where a console program gets a control event from
// outside only, the event loop is told to quit.
void ask_to_stop();

} // namespace corv::bench
