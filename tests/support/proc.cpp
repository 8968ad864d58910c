#include "proc.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarntest {

bool put_word(int fd, uint32_t v)
{
    return write(fd, &v, sizeof v) == static_cast<ssize_t>(sizeof v);
}

bool get_word(int fd, uint32_t *v, int timeout_ms)
{
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1)
        return false;
    return read(fd, v, sizeof *v) == static_cast<ssize_t>(sizeof *v);
}

Proc spawn(const std::function<int(int rd, int wr)> &fn)
{
    int up[2], down[2];
    Proc p;
    if (pipe(up) != 0 || pipe(down) != 0)
        return p;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(up[0]);
        close(down[1]);
        _exit(fn(down[0], up[1]));
    }
    close(up[1]);
    close(down[0]);
    p.pid = pid;
    p.rd = up[0];
    p.wr = down[1];
    return p;
}

int finish(Proc &p, int timeout_ms)
{
    int status = 0;
    pid_t got = 0;
    for (int waited = 0; waited <= timeout_ms; waited += 5) {
        got = waitpid(p.pid, &status, WNOHANG);
        if (got != 0)
            break;
        usleep(5000);
    }
    if (got == 0) {
        kill(p.pid, SIGKILL);
        waitpid(p.pid, &status, 0);
        status = -1;
    }
    close(p.rd);
    close(p.wr);
    p.pid = -1;
    if (status == -1 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

}  // namespace tarntest
