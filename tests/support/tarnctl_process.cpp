#include "tarnctl_process.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace tarntest {

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
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>(path));
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(path, argv.data());
    _exit(127);
}

}  // namespace tarntest
