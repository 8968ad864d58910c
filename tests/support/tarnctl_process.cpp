#include "tarnctl_process.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace tarntest {

std::vector<std::string> program_command(const char *path)
{
    std::vector<std::string> cmd;
    const char *emulator = getenv("TARN_TEST_EMULATOR");
    if (emulator != nullptr && emulator[0] != '\0')
        cmd.emplace_back(emulator);
    cmd.emplace_back(path);
    return cmd;
}

pid_t spawn_tarnctl(const char *path, const std::vector<std::string> &args,
                    const std::vector<std::string> &env, const std::string &out_path,
                    const std::string &err_path)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    const int o = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int e = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (o < 0 || e < 0)
        _exit(127);
    dup2(o, 1);
    dup2(e, 2);
    for (const std::string &kv : env)
        putenv(const_cast<char *>(kv.c_str()));
    std::vector<std::string> cmd = program_command(path);
    cmd.insert(cmd.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : cmd)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

}  // namespace tarntest
