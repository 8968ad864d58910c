// Test support: running the built tarnctl as a separate process.
#ifndef TARN_TESTS_SUPPORT_TARNCTL_PROCESS_H
#define TARN_TESTS_SUPPORT_TARNCTL_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarntest {

// The command line that runs the program at `path`: the path alone, or,
// where the tests run under a user-mode emulator (TARN_TEST_EMULATOR), the
// emulator followed by the path, since the kernel cannot execute it.
std::vector<std::string> program_command(const char *path);

// Starts `tarnctl` (the binary at `path`) with `args`, its standard output
// and error written to the files `out_path` and `err_path`, with `env`
// entries ("NAME=VALUE") added to its environment.  The child's pid, or -1.
pid_t spawn_tarnctl(const char *path, const std::vector<std::string> &args,
                    const std::vector<std::string> &env, const std::string &out_path,
                    const std::string &err_path);

// Replaces this (forked) process by tarnctl with `args`, through the
// emulator when there is one; exit status 127 when it cannot.
[[noreturn]] void exec_tarnctl(const char *path, const std::vector<std::string> &args);

// The lines of `s`, without their newlines.
std::vector<std::string> split_lines(const std::string &s);

// The whole content of a file ("" when it cannot be read).
std::string slurp(const std::string &path);

// What a finished tarnctl run gave.
struct TarnctlRun {
    int status = -1;  // exit status, -1 when killed by a signal
    std::string out;  // standard output ("" when it went to `out_path`)
    std::string err;
};

// Runs tarnctl (TARNCTL_PATH of the test) to its end with files in the
// current host root; standard output goes to `out_path` when one is given
// (for example /dev/full).
TarnctlRun run_tarnctl(const char *path, const std::vector<std::string> &args,
                       const std::vector<std::string> &env = {},
                       const std::string &out_path = "");

}  // namespace tarntest

#endif
