#pragma once

// What the Run Program test's helper program needs from the system.

#include <string>
#include <vector>

// The program's arguments after its name as UTF-8, whatever the system's code
// page; also makes stdout and stderr write bytes as they are.
std::vector<std::string> helper_arguments(int argc, char **argv);

// Starts this program again with the arguments, without waiting for it and
// without handing it this one's output; its process id, or -1.
long long helper_start_self(const std::vector<std::string> &arguments);

// Makes this program and those it starts ignore the polite request to stop
// (SIGTERM on Unix; nothing on Windows, where there is none to ignore).
void helper_ignore_stop_requests();
