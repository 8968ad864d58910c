// The log catalogue: one row per message, the single place where the
// library's log texts live.  catalogue.cpp turns each row into the exported
// records; code reports a row through tarn_report (report.h).
//
// TARN_SERVICE_MESSAGE(name, severity, throttle, text)
//   service form: tagged with the name itself (no "TARN_" prefix).
// TARN_LIBRARY_MESSAGE(name, severity, throttle, text)
//   library form: tagged "TARN_" followed by the name.
#ifndef TARN_CORE_CATALOGUE_H
#define TARN_CORE_CATALOGUE_H

#define TARN_STORE_TEXT_ "Error returned from %s, errno: 0x%08x (%s) in %s()"

#define TARN_CATALOGUE(S, L)                                                  \
    S(RESTART_SHUTDOWN, 6, 10, "TARN shutting self down via restart command in %s()") \
    S(UNKNOWN_KVS_CTX, 6, 10, "TARN received unknown gkvs context 0x%08x in %s()") \
    S(STARTUP_FAILURE, 2, 0, "Startup failure: failed to %s in %s()")         \
    S(CLIS, 2, 10, "Config load failure: %s in %s()")                          \
    S(NOMEM, 3, 10, "Failed to allocate %s in %s()")                           \
    S(API_FAILED, 3, 10, "%s - failed in %s()")                                \
    S(TIB_ID_BST, 2, 10, "%s failed with table id 0x%08x in %s()")             \
    S(STORE, 3, 10, TARN_STORE_TEXT_)                                          \
    S(KVS, 3, 10, TARN_STORE_TEXT_)                                            \
    S(NIC, 3, 10, TARN_STORE_TEXT_)                                            \
    S(BUS, 3, 10, TARN_STORE_TEXT_)                                            \
    S(RRM, 3, 10, TARN_STORE_TEXT_)                                            \
    S(VLANMGR, 3, 10, TARN_STORE_TEXT_)                                        \
    S(RRM_LIMIT, 3, 10, "VRF resource limit reached, errno: 0x%08x (%s)")      \
    S(INVALID_ARG, 3, 10, "invalid arguments - %s - in %s()")                  \
    S(CONTEXT, 3, 10, "Cannot find %s context in %s()")                        \
    S(ASSERT_ERROR, 3, 10, "%s:%d: Assertion \"%s\" failed.")                  \
    S(VRF_ERROR, 3, 10, "%s: %s")                                              \
    S(TLVKIT_API_FAIL, 3, 0, "TLVKIT failure: %s")                             \
    S(CMI_BUSSEND_FAILURE, 3, 0, "bus_send() failure for client %s: %s")       \
    S(CMI_PAYLOAD_CONV_ERR, 3, 10, "CMI payload conversion error failure from %s order to %s order") \
    S(BUS_DROP, 3, 10, "Error returned from bus_drop(), error: %s")            \
    S(BUS_NO_PAYLOAD_ERROR, 3, 10, "Received BUS message with no payload on %s queue with opcode %d, dropping it") \
    S(STATE_MISMATCH, 4, 10, "state mismatch - %s - in %s()")                  \
    S(CONFCHECK, 3, 10, "confcheck API %s() failed with error: %s(0x%08x).\n") \
    S(UNK_BUS_EVENT, 5, 10, "Unrecognized BUS event for opcode %d in %s()")    \
    S(UNK_BUS_OPC, 5, 10, "Unrecognized BUS opcode %d in %s()")                \
    S(UNK_MSG_MINOR, 5, 10, "Unrecognized message minor type %d in %s()")      \
    S(PENDING_KVS_WRITE, 3, 10, "KVS write operation is pending for %s in %s()") \
    S(STORESRV, 3, 10, "STORE Service Error - %s - in %s()")                   \
    S(TLVERROR, 3, 10, "TLV Converion Error - %s, Error:%s in %s()")           \
    S(STOREERROR, 3, 10, "STORE Error %s in %s()")                             \
    S(INTERROR, 3, 10, "Internal Error %s in %s()")                            \
    L(LIBAPI_FAILED, 3, 10, "%s - failed in %s()")                             \
    L(KVS_OPEN, 3, 10, "(%d) Error opening %s, errno: 0x%08x (%s) in %s(), pid %d") \
    L(KVS_READ, 3, 10, "(%d) Error reading %s, errno: 0x%08x (%s) in %s(), pid %d") \
    L(CELL, 3, 10, "Error returned from %s in %s()")                           \
    L(SUPV, 3, 10, "Error returned from %s, errno: 0x%08x (%s) in %s()")       \
    L(LIB_INVALID_ARG, 3, 10, "invalid arguments - %s - in %s()")              \
    L(CLIENT_UNREGISTERED, 3, 10, "%s() - Client not registered")              \
    S(LIB_NOMEM, 3, 10, "Failed to allocate %s in %s()")                       \
    L(LIBBUS, 3, 10, "Error returned from %s, errno: 0x%08x (%s) in %s()")     \
    L(LIBINIT, 3, 10, "Unable to retrieve %s, TARN library not initialized by client") \
    L(NOALLOC, 3, 10, "%s - failed in %s()")

// Messages of the Gyre topology service: service form, facility
// syslog_fac_LOG_TARN, no error record; exported, never logged here.
#define TARN_TRELLIS_MESSAGES(T)                                              \
    T(TPG_INTF_DOWN, 5, "Interface %s down in trellis topology %d %s")        \
    T(TPG_INTF_UP, 5, "Interface %s up in trellis topology %d")               \
    T(TPG_CREATE, 5, "Trellis topology %d created")                           \
    T(TPG_DELETE, 5, "Trellis topology %d deleted")

#endif
