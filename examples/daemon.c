/*
 * daemon: a complete client process of both services, in the shape of a
 * switch daemon.  It binds a bus access point, initialises libtarn,
 * registers for the Tarn and Gyre notifications, keeps both client caches
 * (the AS-number display format and the Gyre topology cache), waits on the
 * bus with poll(), hands every message it receives to the library and says
 * in one line what each applied notification changed.  It answers the
 * host's inspection request, so that "tarnctl dump-cache --pid PID --verify"
 * compares its caches with the databases, and it stops cleanly on SIGINT
 * or SIGTERM.
 *
 * Build against an installed libtarn:
 *     cc -std=c99 -Wall -Wextra -Werror daemon.c \
 *        $(pkg-config --cflags --libs tarn tarnhost) -o daemon
 * Run on a loaded device (tarnctl load device.json):
 *     ./daemon [ACCESS_POINT]          (default 1200)
 * Exit status: 0 when stopped by SIGINT or SIGTERM, 1 on any error (one line
 * "daemon: WHAT: WHY" on standard error).
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>
#include <tarnhost/tarnhost_bus.h>
#include <tarnhost/tarnhost_client.h>

#define DEFAULT_ACCESS_POINT 1200L

/* Payload layouts of the notifications (byte offsets, host order). */
#define TPG_ID_AT 20u         /* 51208, 51210: the topology           */
#define VLAN_COUNT_AT 20u     /* 51214: the record count, then...     */
#define VLAN_RECORDS_AT 24u   /* ...records of 556 bytes, id first    */
#define VLAN_RECORD_SIZE 556u
#define FTAG_ENTRIES_AT 4u    /* 51215: the count at 0, then entries  */
#define FTAG_ENTRY_SIZE 1048u /* reason, topology, graph, ftag, flags */
#define ATTR_KIND_AT 2u       /* 51226: the attribute kind (16 bits)  */
#define ATTR_WORD_AT 24u      /* kind 1: the format; kind 4: the page */
#define ATTR_TPG_AT 28u       /* kind 2: the topology...              */
#define ATTR_FTAGS_AT 36u     /* ...and the ftag bitmap's 128 bytes   */

#define MAX_RECORDS (BUS_MAX_PAYLOAD / VLAN_RECORD_SIZE + 1u)
#define MAX_ENTRIES (BUS_MAX_PAYLOAD / FTAG_ENTRY_SIZE + 1u)

/* What a message is about, read before it is handed to the library: the
 * library may drop (free) the message while applying it. */
struct facts {
    uint32_t opcode;
    uint32_t len;
    uint32_t tpg;         /* 51208, 51210, kind 2 */
    int was_cached;       /* 51210: the topology was in the cache before */
    uint32_t count;       /* records of 51214, entries of 51215 */
    uint32_t tpgs[MAX_RECORDS];
    struct ftag_entry {
        uint32_t reason, tpg, flags;
        uint16_t graph, ftag;
        int owner_cached; /* reason 3: its topology was in the cache */
    } ftags[MAX_ENTRIES];
    uint16_t kind;        /* 51226 */
    uint32_t word24;
    gyre_ftag_bmp_t deleted; /* kind 2: the ftags named */
};

static int g_signal_pipe[2] = {-1, -1};
static volatile sig_atomic_t g_signal = 0;
static int g_output_error = 0;

static void on_signal(int sig)
{
    const int saved = errno;
    const char byte = 1;
    g_signal = sig;
    /* Wakes poll() even when the signal lands just before it waits. */
    if (write(g_signal_pipe[1], &byte, 1) < 0) {
        /* The pipe is full: poll() wakes anyway. */
    }
    errno = saved;
}

static void fail(const char *what, const char *why)
{
    fprintf(stderr, "daemon: %s: %s\n", what, why);
}

/* One line on standard output, flushed at once so that a reader of a pipe
 * sees it; a failed write stops the daemon. */
static void say(const char *format, ...)
{
    va_list ap;
    if (g_output_error != 0)
        return;
    va_start(ap, format);
    if (vprintf(format, ap) < 0 || putchar('\n') == EOF || fflush(stdout) == EOF)
        g_output_error = errno != 0 ? errno : EIO;
    va_end(ap);
}

static uint32_t load32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

static uint16_t load16(const uint8_t *p)
{
    uint16_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

static void read_facts(bus_msg_t *msg, struct facts *f)
{
    uint32_t len = 0, i;
    const uint8_t *p = (const uint8_t *)bus_payload_get(msg, &len);
    memset(f, 0, sizeof *f);
    f->opcode = bus_opc_get(msg);
    f->len = p != NULL ? len : 0;
    if (p == NULL)
        return;
    switch (f->opcode) {
    case BUS_OPC_GYRE_TPG_CREATE:
    case BUS_OPC_GYRE_TPG_DELETE:
        if (len >= TPG_ID_AT + 4) {
            f->tpg = load32(p + TPG_ID_AT);
            f->was_cached = gyre_cache_find_topo_by_id(f->tpg) != NULL;
        }
        break;
    case BUS_OPC_GYRE_TPG_VLANS:
        /* Only the records the payload holds whole, as the library reads. */
        if (len >= VLAN_RECORDS_AT) {
            const uint32_t n = load32(p + VLAN_COUNT_AT);
            for (i = 0; i < n && i < MAX_RECORDS &&
                        VLAN_RECORDS_AT + (i + 1) * VLAN_RECORD_SIZE <= len;
                 ++i)
                f->tpgs[i] = load32(p + VLAN_RECORDS_AT + i * VLAN_RECORD_SIZE);
            f->count = i;
        }
        break;
    case BUS_OPC_GYRE_FTAG_UPDATE:
        if (len >= FTAG_ENTRIES_AT) {
            const uint32_t n = load32(p);
            for (i = 0; i < n && i < MAX_ENTRIES &&
                        FTAG_ENTRIES_AT + (i + 1) * FTAG_ENTRY_SIZE <= len;
                 ++i) {
                const uint8_t *e = p + FTAG_ENTRIES_AT + i * FTAG_ENTRY_SIZE;
                struct ftag_entry *out = &f->ftags[i];
                out->reason = load32(e);
                out->tpg = load32(e + 4);
                out->graph = load16(e + 8);
                out->ftag = load16(e + 10);
                out->flags = load32(e + 12);
                out->owner_cached = gyre_cache_find_topo_by_id(out->tpg) != NULL;
            }
            f->count = i;
        }
        break;
    case BUS_OPC_TARN_ATTR_CHANGE:
        if (len >= ATTR_KIND_AT + 2)
            f->kind = load16(p + ATTR_KIND_AT);
        if (len >= ATTR_WORD_AT + 4)
            f->word24 = load32(p + ATTR_WORD_AT);
        if (f->kind == 2 && len >= ATTR_FTAGS_AT + GYRE_FTAG_BMP_BYTES) {
            f->tpg = load32(p + ATTR_TPG_AT);
            f->deleted.len = GYRE_FTAG_BMP_BYTES;
            memcpy(f->deleted.bits, p + ATTR_FTAGS_AT, GYRE_FTAG_BMP_BYTES);
        }
        break;
    default:
        break;
    }
}

/* "topology T[ created]: vlans V, ftags F" from the cache as it is now;
 * nothing when the cache does not hold the topology (nothing was applied,
 * e.g. after the service flushed the cache). */
static void say_topology(uint32_t tpg, const char *how)
{
    gyre_vlan_bmp_t vlans;
    gyre_ftag_bmp_t ftags;
    char vlan_text[sizeof gyre_scratch_bmp_str];
    memset(&vlans, 0, sizeof vlans);
    memset(&ftags, 0, sizeof ftags);
    vlans.len = GYRE_VLAN_BMP_BYTES;
    ftags.len = GYRE_FTAG_BMP_BYTES;
    if (gyre_cache_get_topo_info(tpg, &vlans, &ftags) != TARN_SUCCESS)
        return;
    /* The formatters answer in scratch strings of the library. */
    snprintf(vlan_text, sizeof vlan_text, "%s", gyre_vlans2str(&vlans));
    say("topology %lu%s vlans %s, ftags %s", (unsigned long)tpg, how, vlan_text,
        gyre_ftag2str(&ftags));
}

static const char *reason_word(uint32_t reason)
{
    return reason == 1 ? "created" : "updated";
}

/* One line per change the library applied, told from its state now. */
static void say_changes(const struct facts *f, int32_t result)
{
    uint32_t i;
    switch (f->opcode) {
    case BUS_OPC_GYRE_TPG_CREATE:
        if (f->len >= TPG_ID_AT + 4)
            say_topology(f->tpg, " created:");
        break;
    case BUS_OPC_GYRE_TPG_DELETE:
        if (f->was_cached && gyre_cache_find_topo_by_id(f->tpg) == NULL)
            say("topology %lu deleted", (unsigned long)f->tpg);
        break;
    case BUS_OPC_GYRE_TPG_VLANS:
        for (i = 0; i < f->count; ++i)
            say_topology(f->tpgs[i], "");
        break;
    case BUS_OPC_GYRE_FTAG_UPDATE:
        for (i = 0; i < f->count; ++i) {
            const struct ftag_entry *e = &f->ftags[i];
            if (e->ftag >= GYRE_FTAG_BMP_BYTES * 8u)
                continue; /* the library skips such entries */
            if (e->reason == 1 || e->reason == 2) {
                const uint32_t owner = gyre_get_ftag_l2_tpg(e->ftag);
                if (owner != GYRE_TPG_NONE)
                    say("ftag %u %s: topology %lu, graph %u, flags 0x%lx", (unsigned)e->ftag,
                        reason_word(e->reason), (unsigned long)owner, (unsigned)e->graph,
                        (unsigned long)e->flags);
            } else if (e->reason == 3 && e->owner_cached) {
                say("ftag %u deleted: topology %lu", (unsigned)e->ftag, (unsigned long)e->tpg);
            }
        }
        break;
    case 51205u:
    case 51209u:
    case 51211u:
    case 51212u:
    case 51213u:
        /* Gyre's, but nothing that the cache keeps. */
        say("notification %lu: nothing to change", (unsigned long)f->opcode);
        break;
    case BUS_OPC_TARN_ATTR_CHANGE:
        if (result != 1)
            break;
        if (f->kind == 1)
            say("AS format %lu", (unsigned long)tarn_get_as_format());
        else if (f->kind == 2 && f->deleted.len != 0)
            say("ftags of topology %lu deleted: %s", (unsigned long)f->tpg,
                gyre_ftag2str(&f->deleted));
        else if (f->kind == 3)
            say("gyre cache flushed");
        else if (f->kind == 4)
            say("cache dump page %lu answered", (unsigned long)f->word24);
        break;
    default:
        break;
    }
}

/* Hands one received message to the library, with the ownership rule of
 * tarn_dispatch: after 1 the library has dropped the message; after 0 (a
 * Gyre notification applied) and -1 (not the library's) it is ours. */
static void handle_message(uint32_t handle, bus_msg_t *msg)
{
    static struct facts f; /* large: kept off the stack */
    int32_t result;
    if (bus_opc_get(msg) == TARNHOST_OPC_CLIENT_INSPECT) {
        /* The host's inspection request (tarnctl dump-cache --verify,
         * tarnctl show clients): the helper answers and drops it. */
        (void)tarnhost_client_dispatch(handle, msg);
        return;
    }
    read_facts(msg, &f);
    result = tarn_dispatch(msg);
    if (result != 1)
        bus_drop(handle, msg);
    if (result != -1 || f.opcode == 51205u)
        say_changes(&f, result);
}

/* Notifications that the bus could not deliver (our queue stayed full)
 * leave the caches stale: the caches are rebuilt from the databases. */
static int catch_up(uint32_t handle, const gyre_cache_attr_t *attr)
{
    uint32_t missed = 0;
    if (tarnhost_bus_missed_take(handle, &missed) != 0 || missed == 0)
        return 0;
    fprintf(stderr, "daemon: missed %lu notifications (the queue was full); rebuilding the "
                    "caches from the databases\n",
            (unsigned long)missed);
    tarn_refresh_as_format_info();
    gyre_disable_cache_mode();
    if (gyre_enable_cache_mode(attr) != TARN_SUCCESS) {
        fail("gyre_enable_cache_mode", "the Gyre cache could not be rebuilt (the device's log "
                                       "says why)");
        return -1;
    }
    return 0;
}

static int parse_access_point(const char *text, long *sap)
{
    char *end = NULL;
    errno = 0;
    *sap = strtol(text, &end, 10);
    return errno == 0 && end != text && *end == '\0' && *sap >= 1 && *sap <= 0x7FFFFFFFL;
}

static int watch_signals(void)
{
    struct sigaction sa;
    int i;
    if (pipe(g_signal_pipe) != 0)
        return -1;
    for (i = 0; i < 2; ++i)
        if (fcntl(g_signal_pipe[i], F_SETFL, O_NONBLOCK) != 0 ||
            fcntl(g_signal_pipe[i], F_SETFD, FD_CLOEXEC) != 0)
            return -1;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    if (sigaction(SIGINT, &sa, NULL) != 0 || sigaction(SIGTERM, &sa, NULL) != 0)
        return -1;
    /* A reader that goes away makes the write fail (EPIPE) instead of
     * killing us before the bus is left clean. */
    sa.sa_handler = SIG_IGN;
    return sigaction(SIGPIPE, &sa, NULL);
}

/* Waits on the bus and on the signals; 0 when stopped by a signal. */
static int run(uint32_t handle, const gyre_cache_attr_t *attr)
{
    struct pollfd fds[2];
    fds[0].fd = tarnhost_bus_fd(handle);
    fds[0].events = POLLIN;
    fds[1].fd = g_signal_pipe[0];
    fds[1].events = POLLIN;
    if (fds[0].fd < 0) {
        fail("tarnhost_bus_fd", strerror(errno));
        return -1;
    }
    while (g_signal == 0 && g_output_error == 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            fail("poll", strerror(errno));
            return -1;
        }
        if (fds[1].revents != 0)
            break;
        if ((fds[0].revents & (POLLERR | POLLNVAL)) != 0) {
            fail("poll", "the bus descriptor failed");
            return -1;
        }
        /* Everything queued, without waiting (a null option record). */
        while (g_signal == 0 && g_output_error == 0) {
            bus_msg_t *msg = bus_recv(handle, NULL);
            if (msg == NULL) {
                if (errno == EAGAIN)
                    break;
                fail("bus_recv", strerror(errno));
                return -1;
            }
            handle_message(handle, msg);
        }
        if (catch_up(handle, attr) != 0)
            return -1;
    }
    if (g_output_error != 0) {
        fail("standard output", strerror(g_output_error));
        return -1;
    }
    return 0;
}

int main(int argc, char **argv)
{
    long sap = DEFAULT_ACCESS_POINT;
    uint32_t handle;
    gyre_cache_attr_t attr;
    int status = 1;
    char what[64];

    if (argc > 2) {
        fail("usage", "daemon [ACCESS_POINT]");
        return 1;
    }
    if (argc == 2 && !parse_access_point(argv[1], &sap)) {
        snprintf(what, sizeof what, "access point \"%.32s\"", argv[1]);
        fail(what, "not a number from 1 to 2147483647");
        return 1;
    }
    if (watch_signals() != 0) {
        fail("signals", strerror(errno));
        return 1;
    }

    /* 1. A bus handle at a fixed access point, where tools address us. */
    handle = bus_bind(0, (int32_t)sap, NULL, "example daemon");
    if (handle == BUS_HANDLE_NONE) {
        snprintf(what, sizeof what, "access point %ld", sap);
        fail(what, errno == EADDRINUSE ? "another process holds it; give another one"
                                       : strerror(errno));
        return 1;
    }
    /* 2. The library, on the device in $TARNHOST_ROOT. */
    if (tarn_api_init() != TARN_SUCCESS || tarn_clt == NULL || !tarn_clt->initialized) {
        fail("tarn_api_init", "the library could not start (is the device loaded? its log "
                              "says why)");
        goto out_unbind;
    }
    /* 3. Registration with both clients, then both caches: Tarn's cache
     *    mode tracking the AS format, and the Gyre topology cache, which is
     *    built from the databases here and kept fresh by the notifications. */
    memset(&attr, 0, sizeof attr);
    attr.bus_handle = handle;
    if (tarn_register(handle) != TARN_SUCCESS) {
        fail("tarn_register", "registration failed (the device's log says why)");
        goto out_close;
    }
    if (gyre_register(handle) != TARN_SUCCESS) {
        fail("gyre_register", "registration failed (the device's log says why)");
        goto out_close;
    }
    if (tarn_track_as_format() != TARN_SUCCESS) {
        fail("tarn_track_as_format", "cache mode could not start (the device's log says why)");
        goto out_close;
    }
    if (gyre_enable_cache_mode(&attr) != TARN_SUCCESS) {
        fail("gyre_enable_cache_mode", "the Gyre cache could not start (the device's log says "
                                       "why)");
        goto out_close;
    }
    /* The inspection request's answers say which caches are on. */
    tarnhost_client_set_enabled(TARNHOST_CLIENT_ALL);

    say("daemon: ready on access point %ld, bus handle %lu, pid %ld", sap,
        (unsigned long)handle, (long)getpid());
    if (run(handle, &attr) == 0 && g_signal != 0) {
        say("daemon: stopping (%s)", g_signal == SIGINT ? "SIGINT" : "SIGTERM");
        status = 0;
    }

out_close:
    /* 4. Cache off, subscriptions cleared, databases closed, handle gone:
     *    nothing of ours stays on the bus. */
    gyre_api_close();
    tarn_api_close();
out_unbind:
    bus_unbind(handle);
    return status;
}
