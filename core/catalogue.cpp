// The exported log records, generated from the catalogue table.

#include "core/catalogue.h"

#include <tarn/tarn.h>

#include "platform/syslog.h"

#define TARN_TAG_(word) "<<%%%s-%d-" word ">> "

extern "C" {

const msg_component_t msg_component_TARN = {"TARN", 0};

const syslog_fac_t syslog_fac_LOG_TARN = {"tarn", 2888, 5, 5, {0, 0}};

#define TARN_SERVICE_RECORDS_(name, sev, throttle, text)                      \
    const syslog_msg_t syslog_msg_TARN_##name = {                    \
        #name, nullptr, TARN_TAG_(#name) text, sev};                          \
    const msg_error_t msg_error_TARN_##name = {                      \
        &msg_component_TARN, #name, text, 0, throttle, {0, 0, 0}, sev, 0,     \
        {0, 0}, &syslog_msg_TARN_##name, nullptr};
#define TARN_LIBRARY_RECORDS_(name, sev, throttle, text)                      \
    const syslog_msg_lib_t syslog_msg_lib_##name = {                 \
        #name, "TARN", TARN_TAG_("TARN_" #name) text,                         \
        TARN_TAG_("TARN_" #name) "(pid=%d) " text, sev};                      \
    const msg_error_t msg_error_TARN_##name = {                      \
        &msg_component_TARN, #name, text, 0, throttle, {0, 0, 0}, sev, 0,     \
        {0, 0}, nullptr, &syslog_msg_lib_##name};

TARN_CATALOGUE(TARN_SERVICE_RECORDS_, TARN_LIBRARY_RECORDS_)

#define TARN_TRELLIS_RECORDS_(name, sev, text)                                \
    const syslog_msg_t syslog_msg_TRELLIS_##name = {                 \
        "TRELLIS_" #name, &syslog_fac_LOG_TARN,                               \
        TARN_TAG_("TRELLIS_" #name) text, sev};

TARN_TRELLIS_MESSAGES(TARN_TRELLIS_RECORDS_)

}  // extern "C"

// The record layouts are the platform logger's; on the device they have
// these sizes.
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(msg_error_t) == 44, "error record");
static_assert(sizeof(syslog_msg_t) == 16, "service-form record");
static_assert(sizeof(syslog_msg_lib_t) == 20, "library-form record");
static_assert(sizeof(syslog_fac_t) == 12, "facility record");
static_assert(sizeof(msg_component_t) == 8, "component record");
#endif
static_assert(offsetof(syslog_fac_t, current_level) == sizeof(void *) + 5,
              "current level in the byte after the default level");
