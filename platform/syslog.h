/*
 * platform/syslog.h - system logging: message records, facilities, the
 * rate limiter, the parameter block and the syslog calls.
 *
 * Contract
 *
 *  1. Records.  A library describes each message once, as constant data:
 *     an error record (msg_error_t, the handle every report passes) that
 *     points at a service-form record (syslog_msg_t) or a library-form
 *     record (syslog_msg_lib_t).  A full format starts with the tag
 *     "<<%%%s-%d-WORD>> ": its %s takes the upper-cased facility name and
 *     its %d the severity; the error record's plain text is the format
 *     without that tag.  Severities are syslog's (2 critical ... 6 info).
 *
 *  2. Facility.  dbgwrap_sys_facility points at the process's current
 *     facility (syslog_fac_t: name, code, default level, current level).  A
 *     message whose severity is above the current level is not logged.  On
 *     the host it starts as "tarn" at level 5; a process may set its own
 *     (tarnhost_log_set_facility).
 *
 *  3. syslog_msg_rate_limit(err, args...) returns 1 when the message may go
 *     out now, else 0.  The arguments are those of the plain text.  With a
 *     throttle attribute of 10, one message with the same rendered arguments
 *     goes out at most once in 10 seconds; attribute 0 is never throttled.
 *     Without memory to remember a message it answers 1: a report is never
 *     lost for want of memory, and no logging call fails for it.
 *
 *  4. syslog_vmsg_params is the process's 1024-byte parameter block that a
 *     service-form sender fills before basis_plat_syslog; syslog_preamble is
 *     the process's preamble text.
 *
 *  5. plat_syslog(severity, format, args...) and basis_plat_syslog(params,
 *     severity, format, args...) render the message, send it to the system
 *     log with syslog(3) and append the rendered line (with a newline) to
 *     $TARNHOST_ROOT/log/messages.
 *
 *  6. syslog_traceback(params_or_null, facility, severity, short_name)
 *     writes a traceback after a message; syslog_backtrace(routine, flags)
 *     records the calling routine on the console log.
 *
 *  7. syserr2str(status) returns a constant text for a platform status or
 *     an errno value; never null.
 */
#ifndef TARN_PLATFORM_SYSLOG_H
#define TARN_PLATFORM_SYSLOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct msg_component {
    const char *name;
    uint32_t reserved;
} msg_component_t;

typedef struct syslog_fac {
    const char *name;
    uint32_t code;
    uint8_t default_level;
    uint8_t current_level;
    uint8_t reserved[2];
} syslog_fac_t;

/* Service form. */
typedef struct syslog_msg {
    const char *short_name;
    const syslog_fac_t *facility;
    const char *format;
    uint32_t severity;
} syslog_msg_t;

/* Library form. */
typedef struct syslog_msg_lib {
    const char *short_name;
    const char *component;
    const char *format;
    const char *format_pid;      /* the format with "(pid=%d) " after the tag */
    uint32_t severity;
} syslog_msg_lib_t;

#define MSG_ERROR_FLAG_TRACEBACK 0x01u

/* Error record. */
typedef struct msg_error {
    const msg_component_t *component;
    const char *short_name;
    const char *text;            /* plain text: the format without its tag */
    uint32_t reserved0;
    uint32_t throttle;           /* 10, or 0: never throttled              */
    uint32_t reserved1[3];
    uint8_t severity;
    uint8_t flags;               /* MSG_ERROR_FLAG_*                       */
    uint8_t reserved2[2];
    const syslog_msg_t *service;      /* service form, or null            */
    const syslog_msg_lib_t *library;  /* library form, or null            */
} msg_error_t;

#define SYSLOG_VMSG_PARAMS_SIZE 1024

extern const syslog_fac_t *dbgwrap_sys_facility;
extern unsigned char syslog_vmsg_params[SYSLOG_VMSG_PARAMS_SIZE];
extern const char syslog_preamble[];

int syslog_msg_rate_limit(const msg_error_t *err, ...);
void plat_syslog(uint32_t severity, const char *format, ...);
void basis_plat_syslog(void *params, uint32_t severity, const char *format,
                       ...);
void syslog_traceback(void *params, const char *facility, uint32_t severity,
                      const char *short_name);
void syslog_backtrace(const char *routine, uint32_t flags);
const char *syserr2str(uint32_t status);

/* The clock: fills 8 bytes with the monotonic time in nanoseconds. */
void basis_sys_mclock_get(void *out8);

#ifdef __cplusplus
}
#endif

#endif
