// Reporting: the one path every failure takes to the system log, and the
// debug print path.
//
// tarn_report(&msg_error_TARN_X, args...) gates on the process's current
// facility level before anything else, so a suppressed message costs two
// loads and a compare; only then does it ask the rate limiter and format.
#ifndef TARN_CORE_REPORT_H
#define TARN_CORE_REPORT_H

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <tarn/tarn.h>

#include "core/state.h"
#include "platform/dbgwrap.h"
#include "platform/syslog.h"

namespace tarn {

// Copies the facility name into a static buffer, upper-cased with the C
// library's table.  Not reentrant: the library reports from one thread.
const char *tarn_facility_upper(const char *name);

// Step 4 of a report: the parameter block the service-form sender reads.
void fill_vmsg_params();

template <class... A>
void send_report(const msg_error_t *e, const char *facility, A... args)
{
    if (e->library != nullptr) {
        const syslog_msg_lib_t *m = e->library;
        plat_syslog(m->severity, m->format, facility, m->severity, args...);
        if (e->flags & MSG_ERROR_FLAG_TRACEBACK)
            syslog_traceback(nullptr, facility, m->severity, e->short_name);
    } else if (e->service != nullptr) {
        const syslog_msg_t *m = e->service;
        basis_plat_syslog(syslog_vmsg_params, m->severity, m->format, facility,
                          m->severity, args...);
        if (e->flags & MSG_ERROR_FLAG_TRACEBACK)
            syslog_traceback(syslog_vmsg_params, facility, m->severity,
                             e->short_name);
    }
}

// Reports catalogue message `e` with the arguments of its text.
template <class... A>
void tarn_report(const msg_error_t *e, A... args)
{
    const syslog_fac_t *fac = dbgwrap_sys_facility;
    if (fac == nullptr)
        return;
    if (fac->current_level < e->severity)
        return;
    if (syslog_msg_rate_limit(e, args...) != 1)
        return;
    fill_vmsg_params();
    send_report(e, tarn_facility_upper(fac->name), args...);
}

// As tarn_report, except that without a current facility the rate limiter
// is still consulted before giving up (tarn_api_init's own reports do so).
template <class... A>
void tarn_report_init(const msg_error_t *e, A... args)
{
    const syslog_fac_t *fac = dbgwrap_sys_facility;
    if (fac == nullptr) {
        (void)syslog_msg_rate_limit(e, args...);
        return;
    }
    tarn_report(e, args...);
}

// Whether a debug line would be printed now; callers whose arguments cost
// something to compute (formatted sets) ask first.
inline bool debug_on()
{
    return debug_enabled && dbgwrap_library_chk_int(TARN_LIB_DBG_INDEX, 2);
}

// The debug print path: one flag test while debugging is off.
template <class... A>
void tarn_debug(const char *format, A... args)
{
    if (!debug_enabled || !dbgwrap_library_chk_int(TARN_LIB_DBG_INDEX, 2))
        return;
    char prefix[200];
    snprintf(prefix, sizeof prefix, "%s %s", dbgwrap_lib_id_and_names[21],
             dbgwrap_library_dbg_pid_and_tag);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    dbgprint_func(1, dbgwrap_dbg_modname, prefix, 0, format, args...);
#pragma GCC diagnostic pop
}

}  // namespace tarn

#endif
