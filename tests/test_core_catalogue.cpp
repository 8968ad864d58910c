// The log catalogue row by row, and the reporting pattern.

#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include <regex>

#include <gtest/gtest.h>

#include <tarn/tarn.h>

#include "core/report.h"
#include "platform/syslog.h"
#include "support/fixture.h"

using tarn::tarn_report;
using tarntest::captured;

namespace {

struct Row {
    const msg_error_t *record;
    const char *short_name;
    bool library;
    unsigned severity;
    unsigned throttle;
    const char *tag;
    const char *text;
    std::function<void()> report;  // with sample arguments
    const char *rendered;          // what the facility "tarn" shows
};

#define E(n) &msg_error_TARN_##n
const char *kStore = "Error returned from %s, errno: 0x%08x (%s) in %s()";

std::vector<Row> rows()
{
    return {
        {E(RESTART_SHUTDOWN), "RESTART_SHUTDOWN", false, 6, 10, "RESTART_SHUTDOWN",
         "TARN shutting self down via restart command in %s()",
         [] { tarn_report(E(RESTART_SHUTDOWN), "f"); },
         "<<%TARN-6-RESTART_SHUTDOWN>> TARN shutting self down via restart command in f()"},
        {E(UNKNOWN_KVS_CTX), "UNKNOWN_KVS_CTX", false, 6, 10, "UNKNOWN_KVS_CTX",
         "TARN received unknown gkvs context 0x%08x in %s()",
         [] { tarn_report(E(UNKNOWN_KVS_CTX), 0xabu, "f"); },
         "<<%TARN-6-UNKNOWN_KVS_CTX>> TARN received unknown gkvs context 0x000000ab in f()"},
        {E(STARTUP_FAILURE), "STARTUP_FAILURE", false, 2, 0, "STARTUP_FAILURE",
         "Startup failure: failed to %s in %s()",
         [] { tarn_report(E(STARTUP_FAILURE), "boot", "f"); },
         "<<%TARN-2-STARTUP_FAILURE>> Startup failure: failed to boot in f()"},
        {E(CLIS), "CLIS", false, 2, 10, "CLIS", "Config load failure: %s in %s()",
         [] { tarn_report(E(CLIS), "x", "f"); },
         "<<%TARN-2-CLIS>> Config load failure: x in f()"},
        {E(NOMEM), "NOMEM", false, 3, 10, "NOMEM", "Failed to allocate %s in %s()",
         [] { tarn_report(E(NOMEM), "x", "f"); },
         "<<%TARN-3-NOMEM>> Failed to allocate x in f()"},
        {E(API_FAILED), "API_FAILED", false, 3, 10, "API_FAILED", "%s - failed in %s()",
         [] { tarn_report(E(API_FAILED), "x", "f"); },
         "<<%TARN-3-API_FAILED>> x - failed in f()"},
        {E(TIB_ID_BST), "TIB_ID_BST", false, 2, 10, "TIB_ID_BST",
         "%s failed with table id 0x%08x in %s()",
         [] { tarn_report(E(TIB_ID_BST), "ins", 0x10u, "f"); },
         "<<%TARN-2-TIB_ID_BST>> ins failed with table id 0x00000010 in f()"},
        {E(STORE), "STORE", false, 3, 10, "STORE", kStore,
         [] { tarn_report(E(STORE), "a", 1u, "b", "f"); },
         "<<%TARN-3-STORE>> Error returned from a, errno: 0x00000001 (b) in f()"},
        {E(KVS), "KVS", false, 3, 10, "KVS", kStore,
         [] { tarn_report(E(KVS), "a", 1u, "b", "f"); },
         "<<%TARN-3-KVS>> Error returned from a, errno: 0x00000001 (b) in f()"},
        {E(NIC), "NIC", false, 3, 10, "NIC", kStore,
         [] { tarn_report(E(NIC), "a", 1u, "b", "f"); },
         "<<%TARN-3-NIC>> Error returned from a, errno: 0x00000001 (b) in f()"},
        {E(BUS), "BUS", false, 3, 10, "BUS", kStore,
         [] { tarn_report(E(BUS), "a", 1u, "b", "f"); },
         "<<%TARN-3-BUS>> Error returned from a, errno: 0x00000001 (b) in f()"},
        {E(RRM), "RRM", false, 3, 10, "RRM", kStore,
         [] { tarn_report(E(RRM), "a", 1u, "b", "f"); },
         "<<%TARN-3-RRM>> Error returned from a, errno: 0x00000001 (b) in f()"},
        {E(VLANMGR), "VLANMGR", false, 3, 10, "VLANMGR", kStore,
         [] { tarn_report(E(VLANMGR), "a", 1u, "b", "f"); },
         "<<%TARN-3-VLANMGR>> Error returned from a, errno: 0x00000001 (b) in f()"},
        {E(RRM_LIMIT), "RRM_LIMIT", false, 3, 10, "RRM_LIMIT",
         "VRF resource limit reached, errno: 0x%08x (%s)",
         [] { tarn_report(E(RRM_LIMIT), 2u, "b"); },
         "<<%TARN-3-RRM_LIMIT>> VRF resource limit reached, errno: 0x00000002 (b)"},
        {E(INVALID_ARG), "INVALID_ARG", false, 3, 10, "INVALID_ARG",
         "invalid arguments - %s - in %s()",
         [] { tarn_report(E(INVALID_ARG), "attr", "f"); },
         "<<%TARN-3-INVALID_ARG>> invalid arguments - attr - in f()"},
        {E(CONTEXT), "CONTEXT", false, 3, 10, "CONTEXT", "Cannot find %s context in %s()",
         [] { tarn_report(E(CONTEXT), "red", "f"); },
         "<<%TARN-3-CONTEXT>> Cannot find red context in f()"},
        {E(ASSERT_ERROR), "ASSERT_ERROR", false, 3, 10, "ASSERT_ERROR",
         "%s:%d: Assertion \"%s\" failed.",
         [] { tarn_report(E(ASSERT_ERROR), "a.c", 7, "x"); },
         "<<%TARN-3-ASSERT_ERROR>> a.c:7: Assertion \"x\" failed."},
        {E(VRF_ERROR), "VRF_ERROR", false, 3, 10, "VRF_ERROR", "%s: %s",
         [] { tarn_report(E(VRF_ERROR), "a", "b"); },
         "<<%TARN-3-VRF_ERROR>> a: b"},
        {E(TLVKIT_API_FAIL), "TLVKIT_API_FAIL", false, 3, 0, "TLVKIT_API_FAIL",
         "TLVKIT failure: %s",
         [] { tarn_report(E(TLVKIT_API_FAIL), "gyre_ftag_info_to_tlv"); },
         "<<%TARN-3-TLVKIT_API_FAIL>> TLVKIT failure: gyre_ftag_info_to_tlv"},
        {E(CMI_BUSSEND_FAILURE), "CMI_BUSSEND_FAILURE", false, 3, 0,
         "CMI_BUSSEND_FAILURE", "bus_send() failure for client %s: %s",
         [] { tarn_report(E(CMI_BUSSEND_FAILURE), "c", "e"); },
         "<<%TARN-3-CMI_BUSSEND_FAILURE>> bus_send() failure for client c: e"},
        {E(CMI_PAYLOAD_CONV_ERR), "CMI_PAYLOAD_CONV_ERR", false, 3, 10,
         "CMI_PAYLOAD_CONV_ERR",
         "CMI payload conversion error failure from %s order to %s order",
         [] { tarn_report(E(CMI_PAYLOAD_CONV_ERR), "host", "network"); },
         "<<%TARN-3-CMI_PAYLOAD_CONV_ERR>> CMI payload conversion error failure from host order to network order"},
        {E(BUS_DROP), "BUS_DROP", false, 3, 10, "BUS_DROP",
         "Error returned from bus_drop(), error: %s",
         [] { tarn_report(E(BUS_DROP), "e"); },
         "<<%TARN-3-BUS_DROP>> Error returned from bus_drop(), error: e"},
        {E(BUS_NO_PAYLOAD_ERROR), "BUS_NO_PAYLOAD_ERROR", false, 3, 10,
         "BUS_NO_PAYLOAD_ERROR",
         "Received BUS message with no payload on %s queue with opcode %d, dropping it",
         [] { tarn_report(E(BUS_NO_PAYLOAD_ERROR), "q", 51226); },
         "<<%TARN-3-BUS_NO_PAYLOAD_ERROR>> Received BUS message with no payload on q queue with opcode 51226, dropping it"},
        {E(STATE_MISMATCH), "STATE_MISMATCH", false, 4, 10, "STATE_MISMATCH",
         "state mismatch - %s - in %s()",
         [] { tarn_report(E(STATE_MISMATCH), "s", "f"); },
         "<<%TARN-4-STATE_MISMATCH>> state mismatch - s - in f()"},
        {E(CONFCHECK), "CONFCHECK", false, 3, 10, "CONFCHECK",
         "confcheck API %s() failed with error: %s(0x%08x).\n",
         [] { tarn_report(E(CONFCHECK), "api", "e", 3u); },
         "<<%TARN-3-CONFCHECK>> confcheck API api() failed with error: e(0x00000003)."},
        {E(UNK_BUS_EVENT), "UNK_BUS_EVENT", false, 5, 10, "UNK_BUS_EVENT",
         "Unrecognized BUS event for opcode %d in %s()",
         [] { tarn_report(E(UNK_BUS_EVENT), 9, "f"); },
         "<<%TARN-5-UNK_BUS_EVENT>> Unrecognized BUS event for opcode 9 in f()"},
        {E(UNK_BUS_OPC), "UNK_BUS_OPC", false, 5, 10, "UNK_BUS_OPC",
         "Unrecognized BUS opcode %d in %s()",
         [] { tarn_report(E(UNK_BUS_OPC), 9, "f"); },
         "<<%TARN-5-UNK_BUS_OPC>> Unrecognized BUS opcode 9 in f()"},
        {E(UNK_MSG_MINOR), "UNK_MSG_MINOR", false, 5, 10, "UNK_MSG_MINOR",
         "Unrecognized message minor type %d in %s()",
         [] { tarn_report(E(UNK_MSG_MINOR), 9, "f"); },
         "<<%TARN-5-UNK_MSG_MINOR>> Unrecognized message minor type 9 in f()"},
        {E(PENDING_KVS_WRITE), "PENDING_KVS_WRITE", false, 3, 10, "PENDING_KVS_WRITE",
         "KVS write operation is pending for %s in %s()",
         [] { tarn_report(E(PENDING_KVS_WRITE), "k", "f"); },
         "<<%TARN-3-PENDING_KVS_WRITE>> KVS write operation is pending for k in f()"},
        {E(STORESRV), "STORESRV", false, 3, 10, "STORESRV",
         "STORE Service Error - %s - in %s()",
         [] { tarn_report(E(STORESRV), "x", "f"); },
         "<<%TARN-3-STORESRV>> STORE Service Error - x - in f()"},
        {E(TLVERROR), "TLVERROR", false, 3, 10, "TLVERROR",
         "TLV Converion Error - %s, Error:%s in %s()",
         [] { tarn_report(E(TLVERROR), "r", "e", "f"); },
         "<<%TARN-3-TLVERROR>> TLV Converion Error - r, Error:e in f()"},
        {E(STOREERROR), "STOREERROR", false, 3, 10, "STOREERROR", "STORE Error %s in %s()",
         [] { tarn_report(E(STOREERROR), "x", "f"); },
         "<<%TARN-3-STOREERROR>> STORE Error x in f()"},
        {E(INTERROR), "INTERROR", false, 3, 10, "INTERROR", "Internal Error %s in %s()",
         [] { tarn_report(E(INTERROR), "x", "f"); },
         "<<%TARN-3-INTERROR>> Internal Error x in f()"},
        {E(LIBAPI_FAILED), "LIBAPI_FAILED", true, 3, 10, "TARN_LIBAPI_FAILED",
         "%s - failed in %s()",
         [] { tarn_report(E(LIBAPI_FAILED), "kvs_iterator_init()", "f"); },
         "<<%TARN-3-TARN_LIBAPI_FAILED>> kvs_iterator_init() - failed in f()"},
        {E(KVS_OPEN), "KVS_OPEN", true, 3, 10, "TARN_KVS_OPEN",
         "(%d) Error opening %s, errno: 0x%08x (%s) in %s(), pid %d",
         [] { tarn_report(E(KVS_OPEN), 1, "u", 5u, "e", "f", 42); },
         "<<%TARN-3-TARN_KVS_OPEN>> (1) Error opening u, errno: 0x00000005 (e) in f(), pid 42"},
        {E(KVS_READ), "KVS_READ", true, 3, 10, "TARN_KVS_READ",
         "(%d) Error reading %s, errno: 0x%08x (%s) in %s(), pid %d",
         [] { tarn_report(E(KVS_READ), 1, "k", 5u, "e", "f", 42); },
         "<<%TARN-3-TARN_KVS_READ>> (1) Error reading k, errno: 0x00000005 (e) in f(), pid 42"},
        {E(CELL), "CELL", true, 3, 10, "TARN_CELL", "Error returned from %s in %s()",
         [] { tarn_report(E(CELL), "ctx range", "tarn_api_init"); },
         "<<%TARN-3-TARN_CELL>> Error returned from ctx range in tarn_api_init()"},
        {E(SUPV), "SUPV", true, 3, 10, "TARN_SUPV", kStore,
         [] { tarn_report(E(SUPV), "s()", 0u, "NULL", "f"); },
         "<<%TARN-3-TARN_SUPV>> Error returned from s(), errno: 0x00000000 (NULL) in f()"},
        {E(LIB_INVALID_ARG), "LIB_INVALID_ARG", true, 3, 10, "TARN_LIB_INVALID_ARG",
         "invalid arguments - %s - in %s()",
         [] { tarn_report(E(LIB_INVALID_ARG), "limits", "f"); },
         "<<%TARN-3-TARN_LIB_INVALID_ARG>> invalid arguments - limits - in f()"},
        {E(CLIENT_UNREGISTERED), "CLIENT_UNREGISTERED", true, 3, 10,
         "TARN_CLIENT_UNREGISTERED", "%s() - Client not registered",
         [] { tarn_report(E(CLIENT_UNREGISTERED), "f"); },
         "<<%TARN-3-TARN_CLIENT_UNREGISTERED>> f() - Client not registered"},
        {E(LIB_NOMEM), "LIB_NOMEM", false, 3, 10, "LIB_NOMEM",
         "Failed to allocate %s in %s()",
         [] { tarn_report(E(LIB_NOMEM), "tarn_clt", "f"); },
         "<<%TARN-3-LIB_NOMEM>> Failed to allocate tarn_clt in f()"},
        {E(LIBBUS), "LIBBUS", true, 3, 10, "TARN_LIBBUS", kStore,
         [] { tarn_report(E(LIBBUS), "bus_send()", 4u, "e", "f"); },
         "<<%TARN-3-TARN_LIBBUS>> Error returned from bus_send(), errno: 0x00000004 (e) in f()"},
        {E(LIBINIT), "LIBINIT", true, 3, 10, "TARN_LIBINIT",
         "Unable to retrieve %s, TARN library not initialized by client",
         [] { tarn_report(E(LIBINIT), "context id"); },
         "<<%TARN-3-TARN_LIBINIT>> Unable to retrieve context id, TARN library not initialized by client"},
        {E(NOALLOC), "NOALLOC", true, 3, 10, "TARN_NOALLOC", "%s - failed in %s()",
         [] { tarn_report(E(NOALLOC), "tarn_clt struct is NULL", "f"); },
         "<<%TARN-3-TARN_NOALLOC>> tarn_clt struct is NULL - failed in f()"},
    };
}
#undef E

class Catalogue : public tarntest::HostTest {};

TEST_F(Catalogue, HasFortyFourRecords) { EXPECT_EQ(44u, rows().size()); }

TEST_F(Catalogue, EveryRecordMatchesItsRow)
{
    tarnhost_log_set_facility("tarn", 7);
    for (const Row &row : rows()) {
        SCOPED_TRACE(row.short_name);
        const msg_error_t *e = row.record;
        EXPECT_EQ(&msg_component_TARN, e->component);
        EXPECT_STREQ(row.short_name, e->short_name);
        EXPECT_STREQ(row.text, e->text);
        EXPECT_EQ(0u, e->reserved0);
        EXPECT_EQ(row.throttle, e->throttle);
        EXPECT_EQ(0u, e->reserved1[0] | e->reserved1[1] | e->reserved1[2]);
        EXPECT_EQ(row.severity, e->severity);
        EXPECT_EQ(0u, e->flags);
        const std::string full =
            std::string("<<%%%s-%d-") + row.tag + ">> " + row.text;
        if (row.library) {
            ASSERT_EQ(nullptr, e->service);
            ASSERT_NE(nullptr, e->library);
            EXPECT_STREQ(row.short_name, e->library->short_name);
            EXPECT_STREQ("TARN", e->library->component);
            EXPECT_EQ(full, e->library->format);
            EXPECT_EQ(std::string("<<%%%s-%d-") + row.tag + ">> (pid=%d) " + row.text,
                      e->library->format_pid);
            EXPECT_EQ(row.severity, e->library->severity);
        } else {
            ASSERT_EQ(nullptr, e->library);
            ASSERT_NE(nullptr, e->service);
            EXPECT_STREQ(row.short_name, e->service->short_name);
            EXPECT_EQ(nullptr, e->service->facility);
            EXPECT_EQ(full, e->service->format);
            EXPECT_EQ(row.severity, e->service->severity);
        }
        tarnhost_capture_clear();
        row.report();
        auto lines = captured();
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(row.rendered, lines[0]);
    }
}

TEST_F(Catalogue, ComponentAndFacilityRecords)
{
    EXPECT_STREQ("TARN", msg_component_TARN.name);
    EXPECT_EQ(0u, msg_component_TARN.reserved);
    EXPECT_STREQ("tarn", syslog_fac_LOG_TARN.name);
    EXPECT_EQ(2888u, syslog_fac_LOG_TARN.code);
    EXPECT_EQ(5, syslog_fac_LOG_TARN.default_level);
    EXPECT_EQ(5, syslog_fac_LOG_TARN.current_level);
    EXPECT_EQ(0, syslog_fac_LOG_TARN.reserved[0] | syslog_fac_LOG_TARN.reserved[1]);
}

TEST_F(Catalogue, TrellisRecords)
{
    struct { const syslog_msg_t *m; const char *name, *format; } t[] = {
        {&syslog_msg_TRELLIS_TPG_INTF_DOWN, "TRELLIS_TPG_INTF_DOWN",
         "<<%%%s-%d-TRELLIS_TPG_INTF_DOWN>> Interface %s down in trellis topology %d %s"},
        {&syslog_msg_TRELLIS_TPG_INTF_UP, "TRELLIS_TPG_INTF_UP",
         "<<%%%s-%d-TRELLIS_TPG_INTF_UP>> Interface %s up in trellis topology %d"},
        {&syslog_msg_TRELLIS_TPG_CREATE, "TRELLIS_TPG_CREATE",
         "<<%%%s-%d-TRELLIS_TPG_CREATE>> Trellis topology %d created"},
        {&syslog_msg_TRELLIS_TPG_DELETE, "TRELLIS_TPG_DELETE",
         "<<%%%s-%d-TRELLIS_TPG_DELETE>> Trellis topology %d deleted"},
    };
    for (auto &r : t) {
        EXPECT_STREQ(r.name, r.m->short_name);
        EXPECT_EQ(&syslog_fac_LOG_TARN, r.m->facility);
        EXPECT_STREQ(r.format, r.m->format);
        EXPECT_EQ(5u, r.m->severity);
    }
}

TEST_F(Catalogue, LevelTwoPassesOnlyTheCriticalRows)
{
    tarnhost_log_set_facility("tarn", 2);
    std::vector<std::string> passed;
    for (const Row &row : rows()) {
        tarnhost_capture_clear();
        row.report();
        if (!captured().empty())
            passed.push_back(row.short_name);
    }
    EXPECT_EQ((std::vector<std::string>{"STARTUP_FAILURE", "CLIS", "TIB_ID_BST"}),
              passed);
}

TEST_F(Catalogue, FacilityNameIsUpperCasedIntoTheTag)
{
    tarnhost_log_set_facility("myDaemon", 5);
    tarn_report(&msg_error_TARN_CELL, "ctx range", "tarn_api_init");
    tarn_report(&msg_error_TARN_KVS, "a", 1u, "b", "f");
    EXPECT_EQ((std::vector<std::string>{
                  "<<%MYDAEMON-3-TARN_CELL>> Error returned from ctx range in tarn_api_init()",
                  "<<%MYDAEMON-3-KVS>> Error returned from a, errno: 0x00000001 (b) in f()"}),
              captured());
}

TEST_F(Catalogue, NoFacilityLogsNothing)
{
    tarnhost_log_set_facility(nullptr, 0);
    tarn_report(&msg_error_TARN_CELL, "ctx range", "f");
    EXPECT_TRUE(captured().empty());
}

TEST_F(Catalogue, RefusedByTheRateLimiterLeavesTheParameterBlockAlone)
{
    memset(syslog_vmsg_params, 0x5A, sizeof syslog_vmsg_params);
    tarnhost_fault_set("syslog_msg_rate_limit", 0, 1);
    tarn_report(&msg_error_TARN_KVS, "a", 1u, "b", "f");
    EXPECT_TRUE(captured().empty());
    for (unsigned char c : syslog_vmsg_params)
        ASSERT_EQ(0x5A, c);
}

TEST_F(Catalogue, ServiceFormFillsTheParameterBlock)
{
    memset(syslog_vmsg_params, 0x5A, sizeof syslog_vmsg_params);
    tarn_report(&msg_error_TARN_KVS, "a", 1u, "b", "f");
    ASSERT_EQ(1u, captured().size());
    const unsigned char *p = syslog_vmsg_params;
    uint32_t w;
    memcpy(&w, p, 4);
    EXPECT_EQ(1u, w);
    memcpy(&w, p + 16, 4);
    EXPECT_EQ(0u, w);
    memcpy(&w, p + 20, 4);
    EXPECT_EQ(0u, w);
    EXPECT_EQ(0, strncmp(reinterpret_cast<const char *>(p + 24), syslog_preamble, 40));
    memcpy(&w, p + 64, 4);
    EXPECT_EQ(1u, w);
    EXPECT_EQ(' ', p[72]);
    EXPECT_EQ(' ', p[73]);
    for (size_t i = 74; i < sizeof syslog_vmsg_params; ++i)
        ASSERT_EQ(0, p[i]) << i;
}

TEST_F(Catalogue, LibraryFormIsSentWithoutTheProcessId)
{
    tarn_report(&msg_error_TARN_LIBINIT, "context id");
    ASSERT_EQ(1u, captured().size());
    EXPECT_EQ(std::string::npos, captured()[0].find("(pid="));
}

TEST_F(Catalogue, TracebackFlagWritesATracebackAfterTheMessage)
{
    // No catalogue row sets the flag; a record that does gets its traceback.
    msg_error_t library = msg_error_TARN_CELL;
    library.flags = MSG_ERROR_FLAG_TRACEBACK;
    msg_error_t service = msg_error_TARN_KVS;
    service.flags = MSG_ERROR_FLAG_TRACEBACK;
    tarn_report(&library, "ctx range", "f");
    tarn_report(&service, "a", 1u, "b", "f");
    EXPECT_EQ(2u, captured().size());
    EXPECT_EQ((std::vector<std::string>{"traceback TARN-3-CELL", "traceback TARN-3-KVS (service)"}),
              captured(TARNHOST_CH_CONSOLE));
    tarn_report(&msg_error_TARN_CELL, "ctx range", "g");
    EXPECT_EQ(2u, captured(TARNHOST_CH_CONSOLE).size()) << "catalogue rows write none";
}

TEST_F(Catalogue, SameMessageSameArgumentsIsThrottled)
{
    tarn_report(&msg_error_TARN_CELL, "ctx range", "f");
    tarn_report(&msg_error_TARN_CELL, "ctx range", "f");
    tarn_report(&msg_error_TARN_CELL, "ctx range", "g");
    EXPECT_EQ(2u, captured().size());
}

TEST_F(Catalogue, ThrottleAttributeZeroIsNeverThrottled)
{
    tarn_report(&msg_error_TARN_TLVKIT_API_FAIL, "x");
    tarn_report(&msg_error_TARN_TLVKIT_API_FAIL, "x");
    EXPECT_EQ(2u, captured().size());
}

TEST_F(Catalogue, MessagesGoToTheDeviceLogFile)
{
    tarn_report(&msg_error_TARN_CELL, "ctx range", "file_test");
    FILE *f = fopen((root_ + "/log/messages").c_str(), "r");
    ASSERT_NE(nullptr, f);
    char line[512] = {0};
    ASSERT_NE(nullptr, fgets(line, sizeof line, f));
    fclose(f);
    // A syslog file's prefix (time, host, process name and pid), then the
    // rendered message byte for byte.
    const std::string text = line;
    const std::string message =
        "<<%TARN-3-TARN_CELL>> Error returned from ctx range in file_test()\n";
    ASSERT_GT(text.size(), message.size());
    EXPECT_EQ(message, text.substr(text.size() - message.size()));
    const std::string prefix = text.substr(0, text.size() - message.size());
    EXPECT_TRUE(std::regex_match(
        prefix, std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}"
                           "Z [^ ]+ " +
                           std::string(program_invocation_short_name) + "\\[" +
                           std::to_string(getpid()) + "\\]: ")))
        << prefix;
}

TEST_F(Catalogue, DebugPathPrintsOnlyWhenSwitchedOn)
{
    tarn::tarn_debug("Completed %s()", "x");
    EXPECT_TRUE(captured(TARNHOST_CH_DEBUG).empty());
    int handle = 0;
    ASSERT_EQ(1u, tarn_api_debug(&handle, 1));
    tarn::tarn_debug("Completed %s()", "x");
    ASSERT_EQ(1u, captured(TARNHOST_CH_DEBUG).size());
    EXPECT_EQ(std::string("libtarn ") + dbgwrap_library_dbg_pid_and_tag + " Completed x()",
              captured(TARNHOST_CH_DEBUG)[0]);
    ASSERT_EQ(1u, tarn_api_debug(&handle, 0));
    tarn::tarn_debug("Completed %s()", "y");
    EXPECT_EQ(1u, captured(TARNHOST_CH_DEBUG).size());
}

TEST_F(Catalogue, DebugSwitchNeedsAHandle)
{
    EXPECT_EQ(0u, tarn_api_debug(nullptr, 1));
    EXPECT_EQ(0u, tarn_api_debug_common(nullptr, 2, 1));
    tarn::tarn_debug("x");
    EXPECT_TRUE(captured(TARNHOST_CH_DEBUG).empty());
}

}  // namespace

TEST_F(Catalogue, ReportsHeldBackByTheRateLimiterAreCounted)
{
    const uint64_t before = tarnhost_log_held();
    tarn_report(&msg_error_TARN_KVS, "held", 1u, "b", "f");
    EXPECT_EQ(before, tarnhost_log_held());
    tarn_report(&msg_error_TARN_KVS, "held", 1u, "b", "f");
    EXPECT_EQ(1u, captured().size());
    EXPECT_EQ(before + 1, tarnhost_log_held());
    // Another text is another report: let through, not counted.
    tarn_report(&msg_error_TARN_KVS, "other", 1u, "b", "f");
    EXPECT_EQ(2u, captured().size());
    EXPECT_EQ(before + 1, tarnhost_log_held());
}
