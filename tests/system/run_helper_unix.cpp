#include "run_helper.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

extern char **environ;

std::vector<std::string> helper_arguments(int argc, char **argv)
{
    return {argv + 1, argv + argc};
}

long long helper_start_self(const std::vector<std::string> &arguments)
{
    std::vector<std::string> all{"run_helper"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char *> list;
    for (std::string &argument : all)
        list.push_back(argument.data());
    list.push_back(nullptr);
    // Its output goes nowhere: a reader of this one's waits for no copy.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int failed = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, list.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return failed ? -1 : pid;
}

void helper_ignore_stop_requests()
{
    std::signal(SIGTERM, SIG_IGN); // kept across exec, so the copy ignores it too
}
