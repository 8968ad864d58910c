#include "support/tool_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "host/tarnhost.h"
#include "support/tarnctl_process.h"

namespace tarntest {

void sleep_ms(long ms)
{
    timespec ts{ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
}

void Proc::start(const std::vector<std::string> &args)
{
    static int serial = 0;
    const std::string base =
        std::string(tarnhost_root()) + "/tool." + std::to_string(getpid()) + "." +
        std::to_string(++serial);
    out_path = base + ".out";
    err_path = base + ".err";
    pid = spawn_tarnctl(TARNCTL_PATH, args, {}, out_path, err_path);
}

std::string Proc::out() const { return slurp(out_path); }
std::string Proc::err() const { return slurp(err_path); }

bool Proc::wait_for(const std::string &text) const
{
    for (int i = 0; i < 1500; ++i) {
        if (out().find(text) != std::string::npos)
            return true;
        sleep_ms(20);
    }
    return false;
}

int Proc::wait()
{
    for (int i = 0; i < 3000; ++i) {
        int st = 0;
        if (waitpid(pid, &st, WNOHANG) == pid) {
            pid = -1;
            return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
        }
        sleep_ms(20);
    }
    return -2;
}

Proc::~Proc()
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

Result tarnctl(const std::vector<std::string> &args)
{
    Proc p;
    p.start(args);
    Result r;
    r.status = p.wait();
    r.out = p.out();
    r.err = p.err();
    return r;
}

}  // namespace tarntest
