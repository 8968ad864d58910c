#include "tarnctl_process.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "host/tarnhost.h"

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
    exec_tarnctl(path, args);
}

void exec_tarnctl(const char *path, const std::vector<std::string> &args)
{
    std::vector<std::string> cmd = program_command(path);
    cmd.insert(cmd.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : cmd)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

std::vector<std::string> split_lines(const std::string &s)
{
    std::vector<std::string> out;
    std::istringstream in(s);
    std::string line;
    while (std::getline(in, line))
        out.push_back(line);
    return out;
}

std::string slurp(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TarnctlRun run_tarnctl(const char *path, const std::vector<std::string> &args,
                       const std::vector<std::string> &env, const std::string &out_path)
{
    const std::string dir = tarnhost_root();
    const std::string own_out = dir + "/tarnctl-run.out";
    const std::string err_path = dir + "/tarnctl-run.err";
    const pid_t pid =
        spawn_tarnctl(path, args, env, out_path.empty() ? own_out : out_path, err_path);
    TarnctlRun r;
    int st = 0;
    if (pid > 0 && waitpid(pid, &st, 0) == pid && WIFEXITED(st))
        r.status = WEXITSTATUS(st);
    if (out_path.empty())
        r.out = slurp(own_out);
    r.err = slurp(err_path);
    return r;
}

}  // namespace tarntest
