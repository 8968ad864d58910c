// "What is this VRF's (or interface's) context?" asked the way neighbouring
// systems ask it, beside tarn_get_context_id and the raw LMDB read in the
// same run:
//
//  BM_ContextId          tarn_get_context_id of a context name (baseline);
//  BM_RawReadContextName the raw LMDB read of the same key (baseline);
//  BM_RedisHgetall       HGETALL of the VRF's hash from a redis-server of
//                        this run, over a Unix socket (hiredis);
//  BM_NetlinkGetlink     RTM_GETLINK of ifindex 1 (the loopback) from the
//                        kernel, its master (VRF) device read from the
//                        answer (libmnl);
//  BM_MapByName          a lookup by name in an in-process ordered map.
//
// The redis-server is started by this program in a private directory, on a
// Unix socket only (no TCP port, no persistence), and is stopped on every
// way out: return, signal, or this program's death (the kernel sends it
// SIGKILL then).  Ratios are of wall-clock time: the server's and the
// kernel's work is not in this process's CPU time.  Where it cannot run, or netlink is refused, that line is
// skipped and says so; the other lines still run.

#include <errno.h>
#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <libmnl/libmnl.h>

#include "bench/query_device.h"
#include "bench/ratio_reporter.h"

#include <tarn/tarn.h>

namespace {

constexpr int kAsked = 256;  // names asked in turn, as in bench_queries

std::string asked_name(size_t n) { return "vrf" + std::to_string(((n % kAsked) + 1) * 13); }

// ---- the Redis server of this run ------------------------------------------

// The server's pid and its directory and socket, for the signal handler;
// pid 0 when none runs.
volatile sig_atomic_t g_redis_pid = 0;
char g_redis_dir[64];
char g_redis_socket[96];

void stop_redis()
{
    const pid_t pid = static_cast<pid_t>(g_redis_pid);
    if (pid <= 0)
        return;
    g_redis_pid = 0;
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void stop_redis_and_die(int sig)
{
    const pid_t pid = static_cast<pid_t>(g_redis_pid);
    if (pid > 0) {
        kill(pid, SIGKILL);  // async-signal-safe; the kernel reaps it with us
        unlink(g_redis_socket);
        rmdir(g_redis_dir);
    }
    signal(sig, SIG_DFL);
    raise(sig);
}

class RedisServer {
public:
    RedisServer()
    {
        if (access(TARN_REDIS_SERVER, X_OK) != 0) {
            why_ = std::string(TARN_REDIS_SERVER) + " cannot be run";
            return;
        }
        char tmpl[] = "/tmp/tarnpeers.XXXXXX";  // mode 0700, ours alone
        if (mkdtemp(tmpl) == nullptr) {
            why_ = std::string("no private directory: ") + strerror(errno);
            return;
        }
        dir_ = tmpl;
        socket_ = dir_ + "/redis.sock";
        snprintf(g_redis_dir, sizeof g_redis_dir, "%s", dir_.c_str());
        snprintf(g_redis_socket, sizeof g_redis_socket, "%s", socket_.c_str());
        for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV})
            signal(sig, stop_redis_and_die);
        atexit(stop_redis);
        const pid_t pid = fork();
        if (pid < 0) {
            why_ = std::string("fork: ") + strerror(errno);
            return;
        }
        if (pid == 0) {
            // Dies with this program, whatever way it ends.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() == 1)
                _exit(127);
            const int null = open("/dev/null", O_RDWR);
            if (null >= 0) {
                dup2(null, 0);
                dup2(null, 1);
                dup2(null, 2);
            }
            execl(TARN_REDIS_SERVER, "redis-server", "--port", "0", "--unixsocket",
                  socket_.c_str(), "--unixsocketperm", "700", "--dir", dir_.c_str(), "--save",
                  "", "--appendonly", "no", "--daemonize", "no", "--logfile", "",
                  static_cast<char *>(nullptr));
            _exit(127);
        }
        g_redis_pid = pid;
        // Up when its socket answers, within five seconds.
        for (int i = 0; i < 500 && ctx_ == nullptr; ++i) {
            redisContext *c = redisConnectUnix(socket_.c_str());
            if (c != nullptr && c->err == 0) {
                ctx_ = c;
                break;
            }
            if (c != nullptr)
                redisFree(c);
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                g_redis_pid = 0;
                why_ = "redis-server exited at start";
                return;
            }
            usleep(10000);
        }
        if (ctx_ == nullptr)
            why_ = "redis-server did not answer on its socket";
    }

    ~RedisServer()
    {
        if (ctx_ != nullptr)
            redisFree(ctx_);
        stop_redis();
        if (!dir_.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(dir_, ec);
        }
    }

    redisContext *context() const { return ctx_; }
    const std::string &why_not() const { return why_; }

private:
    std::string dir_, socket_, why_;
    redisContext *ctx_ = nullptr;
};

// The VRF hashes "vrf:<name>", with the fields of a context record.
bool fill_redis(redisContext *c)
{
    for (int i = 1; i <= tarnbench::kContexts; ++i) {
        const std::string id = std::to_string(i);
        redisAppendCommand(c, "HSET vrf:vrf%s id %s state 2 table_v4 %d table_v6 %d", id.c_str(),
                           id.c_str(), 2 * i, 2 * i + 1);
    }
    for (int i = 1; i <= tarnbench::kContexts; ++i) {
        void *reply = nullptr;
        if (redisGetReply(c, &reply) != REDIS_OK)
            return false;
        freeReplyObject(reply);
    }
    return true;
}

RedisServer *g_redis = nullptr;

void BM_RedisHgetall(benchmark::State &state)
{
    if (g_redis == nullptr || g_redis->context() == nullptr) {
        state.SkipWithError(("skipped: " + (g_redis ? g_redis->why_not() : "no server")).c_str());
        return;
    }
    redisContext *c = g_redis->context();
    std::vector<std::string> names;
    for (size_t i = 0; i < kAsked; ++i)
        names.push_back(asked_name(i));
    size_t n = 0, found = 0;
    for (auto _ : state) {
        redisReply *r = static_cast<redisReply *>(
            redisCommand(c, "HGETALL vrf:%s", names[n++ % kAsked].c_str()));
        if (r == nullptr) {
            state.SkipWithError("the Redis connection failed");
            return;
        }
        if (r->type == REDIS_REPLY_ARRAY)
            for (size_t i = 0; i + 1 < r->elements; i += 2)
                if (strcmp(r->element[i]->str, "id") == 0 && atoi(r->element[i + 1]->str) != 0)
                    ++found;
        freeReplyObject(r);
    }
    if (found != static_cast<size_t>(state.iterations()))
        state.SkipWithError("a VRF hash was not found");
}

// ---- netlink ---------------------------------------------------------------

struct LinkAnswer {
    uint32_t master = 0;  // the VRF device the link is enslaved to, 0 none
    bool seen = false;
};

int link_attr(const struct nlattr *attr, void *data)
{
    LinkAnswer *a = static_cast<LinkAnswer *>(data);
    if (mnl_attr_get_type(attr) == IFLA_MASTER && mnl_attr_validate(attr, MNL_TYPE_U32) >= 0)
        a->master = mnl_attr_get_u32(attr);
    return MNL_CB_OK;
}

int link_message(const struct nlmsghdr *nlh, void *data)
{
    LinkAnswer *a = static_cast<LinkAnswer *>(data);
    if (nlh->nlmsg_type != RTM_NEWLINK)
        return MNL_CB_OK;
    a->seen = true;
    return mnl_attr_parse(nlh, sizeof(struct ifinfomsg), link_attr, data);
}

void BM_NetlinkGetlink(benchmark::State &state)
{
    struct mnl_socket *nl = mnl_socket_open(NETLINK_ROUTE);
    if (nl == nullptr || mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID) < 0) {
        state.SkipWithError((std::string("skipped: no netlink socket: ") + strerror(errno)).c_str());
        if (nl != nullptr)
            mnl_socket_close(nl);
        return;
    }
    const unsigned port = mnl_socket_get_portid(nl);
    std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
    uint32_t seq = static_cast<uint32_t>(time(nullptr));
    size_t answered = 0;
    for (auto _ : state) {
        struct nlmsghdr *nlh = mnl_nlmsg_put_header(buf.data());
        nlh->nlmsg_type = RTM_GETLINK;
        nlh->nlmsg_flags = NLM_F_REQUEST;
        nlh->nlmsg_seq = ++seq;
        struct ifinfomsg *ifm =
            static_cast<struct ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof *ifm));
        ifm->ifi_family = AF_UNSPEC;
        ifm->ifi_index = 1;
        if (mnl_socket_sendto(nl, nlh, nlh->nlmsg_len) < 0) {
            state.SkipWithError("netlink send failed");
            break;
        }
        LinkAnswer answer;
        const ssize_t got = mnl_socket_recvfrom(nl, buf.data(), buf.size());
        if (got < 0 || mnl_cb_run(buf.data(), static_cast<size_t>(got), seq, port, link_message,
                                  &answer) < 0) {
            state.SkipWithError("netlink answer failed");
            break;
        }
        benchmark::DoNotOptimize(answer.master);
        answered += answer.seen;
    }
    mnl_socket_close(nl);
    if (answered != static_cast<size_t>(state.iterations()))
        state.SkipWithError("the loopback link was not in an answer");
}

// ---- the in-process map and the baselines ------------------------------------

struct VrfRecord {
    uint32_t id;
    uint32_t state;
    uint32_t table_v4, table_v6;
};

void BM_MapByName(benchmark::State &state)
{
    std::map<std::string, VrfRecord> vrfs;
    for (uint32_t i = 1; i <= static_cast<uint32_t>(tarnbench::kContexts); ++i)
        vrfs.emplace("vrf" + std::to_string(i), VrfRecord{i, 2, 2 * i, 2 * i + 1});
    std::vector<std::string> names;
    for (size_t i = 0; i < kAsked; ++i)
        names.push_back(asked_name(i));
    size_t n = 0, found = 0;
    for (auto _ : state) {
        auto it = vrfs.find(names[n++ % kAsked]);
        found += it != vrfs.end() && it->second.id != 0;
    }
    if (found != static_cast<size_t>(state.iterations()))
        state.SkipWithError("a VRF was not found");
}

void BM_ContextId(benchmark::State &state)
{
    std::vector<std::string> names;
    for (size_t i = 0; i < kAsked; ++i)
        names.push_back(asked_name(i));
    size_t n = 0, found = 0;
    for (auto _ : state)
        found += tarn_get_context_id(names[n++ % kAsked].c_str()) != 0;
    if (found != static_cast<size_t>(state.iterations()))
        state.SkipWithError("a context was not found");
}

void BM_RawReadContextName(benchmark::State &state)
{
    tarnbench::QueryDevice &d = tarnbench::query_device();
    std::vector<std::vector<uint8_t>> keys;
    for (size_t i = 0; i < kAsked; ++i)
        keys.push_back(tarnbench::key_name(1, asked_name(i)));
    size_t n = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(d.raw_read(keys[n++ % kAsked].data()));
}

BENCHMARK(BM_ContextId);
BENCHMARK(BM_RawReadContextName);
BENCHMARK(BM_RedisHgetall);
BENCHMARK(BM_NetlinkGetlink);
BENCHMARK(BM_MapByName);

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (!tarnbench::query_device().ok) {
        fprintf(stderr, "bench_peers: could not set up the device\n");
        return 1;
    }
    RedisServer redis;
    if (redis.context() != nullptr && !fill_redis(redis.context()))
        fprintf(stderr, "bench_peers: could not fill the Redis hashes\n");
    if (redis.context() == nullptr)
        printf("bench_peers: BM_RedisHgetall skipped: %s\n", redis.why_not().c_str());
    g_redis = &redis;
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const char *m : {"BM_RedisHgetall", "BM_NetlinkGetlink", "BM_MapByName"}) {
        pairs.emplace_back(m, "BM_ContextId");
        pairs.emplace_back(m, "BM_RawReadContextName");
    }
    pairs.emplace_back("BM_ContextId", "BM_RawReadContextName");
    RatioReporter reporter(pairs);
    reporter.use_real_time();  // the peers' answers come from other processes
    benchmark::RunSpecifiedBenchmarks(&reporter);
    g_redis = nullptr;
    return 0;
}
