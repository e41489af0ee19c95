// A program for the Run Program node's test, the same on every platform,
// that does in order what its arguments say:
//   print TEXT    writes TEXT to stdout     eprint TEXT  writes TEXT to stderr
//   repeat N TEXT writes TEXT N times       sleep S      sleeps S seconds
//   cwd           writes its folder, a line env NAME     writes $NAME, a line
//   touch FILE    creates FILE              exit N       ends with exit code N
//   child FILE    starts a copy of itself that sleeps 30 s, ignoring
//                 requests to stop as it does from then on, and writes that
//                 copy's process id into FILE
//   args REST...  writes each argument that follows as "[argument]" lines
// Without arguments it ends at once with exit code 0.
#include "run_helper.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

int main(int argc, char **argv)
{
    const std::vector<std::string> a = helper_arguments(argc, argv);
    const auto write = [](FILE *to, const std::string &text) {
        std::fwrite(text.data(), 1, text.size(), to);
        std::fflush(to);
    };
    for (size_t i = 0; i < a.size(); ++i) {
        const std::string &step = a[i];
        const bool has_one = i + 1 < a.size();
        if (step == "args") {
            for (++i; i < a.size(); ++i)
                write(stdout, "[" + a[i] + "]\n");
        } else if (step == "cwd") {
            const std::u8string path = std::filesystem::current_path().u8string();
            write(stdout, std::string(path.begin(), path.end()) + "\n");
        } else if (!has_one) {
            std::fprintf(stderr, "run_helper: %s needs a value\n", step.c_str());
            return 125;
        } else if (step == "print") {
            write(stdout, a[++i]);
        } else if (step == "eprint") {
            write(stderr, a[++i]);
        } else if (step == "repeat" && i + 2 < a.size()) {
            const long count = std::atol(a[++i].c_str());
            std::string all;
            for (long n = 0; n < count; ++n)
                all += a[i + 1];
            write(stdout, all);
            ++i;
        } else if (step == "sleep") {
            std::this_thread::sleep_for(std::chrono::duration<double>(std::atof(a[++i].c_str())));
        } else if (step == "env") {
            const char *value = std::getenv(a[++i].c_str());
            write(stdout, std::string(value ? value : "") + "\n");
        } else if (step == "touch") {
            FILE *file = std::fopen(a[++i].c_str(), "wb");
            if (!file || std::fclose(file) != 0)
                return 124;
        } else if (step == "exit") {
            return std::atoi(a[++i].c_str());
        } else if (step == "child") {
            helper_ignore_stop_requests();
            const long long pid = helper_start_self({"sleep", "30"});
            FILE *file = std::fopen(a[++i].c_str(), "wb");
            if (pid <= 0 || !file)
                return 123;
            std::fprintf(file, "%lld\n", pid);
            std::fclose(file);
        } else {
            std::fprintf(stderr, "run_helper: unknown step %s\n", step.c_str());
            return 125;
        }
    }
    return 0;
}
