// Building blocks of the record catalogue: descriptor rows, table storage
// exported under the tables' own names, and the wrapper families that bind a
// record type to its table.
#ifndef TARN_RECORDS_RECORD_TABLE_H
#define TARN_RECORDS_RECORD_TABLE_H

#include <stddef.h>
#include <stdint.h>

#include <tarn/tlv_table.h>

#include "platform/tlvkit.h"

namespace tarn_records {

// The head as a table stores it.  The initialiser keeps its own type (some
// take a byte count as well as the record), so that the whole table is a
// constant expression: converting it to tlvkit_init_cb would be a
// reinterpret_cast, which C++ only performs at run time, leaving the table
// writable and without its initialiser until the library's constructors ran.
// All function pointers share one representation, so the bytes are those of
// tlvkit_table_head_t.
template <class Init>
struct table_head {
    uint32_t struct_size;
    const char *name;
    Init init;
    uint32_t reserved;
};

// A table with its N descriptors (terminator included) laid out as the
// variable-length tlvkit_table_t.  C++ cannot initialise a flexible array
// member, so each table is defined as one of these and exported under the
// tlvkit_table_t name with an assembler label.
template <unsigned N, class Init>
struct table_storage {
    table_head<Init> head;
    tlvkit_field_t fields[N];
};

// The stored type of an initialiser; a table without one stores a null
// tlvkit_init_cb.
template <class F>
struct init_of {
    using type = F;
};
template <>
struct init_of<decltype(nullptr)> {
    using type = tlvkit_init_cb;
};
template <class F>
using init_of_t = typename init_of<F>::type;

template <class Init>
constexpr bool head_is_tlvkit_head()
{
    return sizeof(table_head<Init>) == sizeof(tlvkit_table_head_t) &&
           alignof(table_head<Init>) == alignof(tlvkit_table_head_t) &&
           offsetof(table_head<Init>, name) == offsetof(tlvkit_table_head_t, name) &&
           offsetof(table_head<Init>, init) == offsetof(tlvkit_table_head_t, init) &&
           offsetof(table_head<Init>, reserved) == offsetof(tlvkit_table_head_t, reserved);
}

template <class... Fields>
constexpr unsigned count(const Fields &...)
{
    return sizeof...(Fields);
}

constexpr uint32_t kMark = TLVKIT_FIELD_MARK;

// Kind 1: integer or fixed blob of `size` bytes.
constexpr tlvkit_field_t value(uint32_t id, uint32_t off, uint32_t size)
{
    return {id, size, off, TLVKIT_KIND_VALUE, nullptr, nullptr, nullptr,
            nullptr, 0, size, kMark, nullptr};
}

// Kind 2: NUL-terminated text in a `size`-byte array.
constexpr tlvkit_field_t string(uint32_t id, uint32_t off, uint32_t size)
{
    return {id, 1, off, TLVKIT_KIND_STRING, nullptr, nullptr, nullptr,
            nullptr, 0, size, kMark, nullptr};
}

// Kind 3: opaque `size`-byte array.
constexpr tlvkit_field_t bytes(uint32_t id, uint32_t off, uint32_t size)
{
    return {id, 1, off, TLVKIT_KIND_BYTES, nullptr, nullptr, nullptr,
            nullptr, 0, size, kMark, nullptr};
}

// Kind 5: counted array of nested records (or raw bytes when `nested` is
// null).
constexpr tlvkit_field_t array(uint32_t id, uint32_t elem, uint32_t off,
                               tlvkit_count_cb count,
                               const tlvkit_table_t *nested)
{
    return {id, elem, off, TLVKIT_KIND_ARRAY, nullptr, nullptr, nullptr,
            count, 0, 0, kMark, nested};
}

// Kind 8: the record's own callbacks; total 0 for a variable-length field.
constexpr tlvkit_field_t custom(uint32_t id, uint32_t elem, uint32_t off,
                                tlvkit_encode_cb enc, tlvkit_decode_cb dec,
                                tlvkit_size_cb size, uint32_t total)
{
    return {id, elem, off, TLVKIT_KIND_CUSTOM, enc, dec, size, nullptr, 0,
            total, kMark, nullptr};
}

constexpr tlvkit_field_t end()
{
    return {0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0, nullptr, nullptr,
            nullptr, nullptr, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, nullptr};
}

}  // namespace tarn_records

// Defines table X_tbl, constant-initialised (so read-only after relocation):
// the record's size, its type name, its default initialiser (or nullptr)
// and the descriptors, terminator last.  Its C++ name is X_tbl_def.
#define TARN_DEFINE_TABLE(X, SIZE, NAME, INIT, ...)                          \
    using X##_tbl_type = tarn_records::table_storage<                        \
        tarn_records::count(__VA_ARGS__),                                    \
        tarn_records::init_of_t<decltype(INIT)>>;                            \
    static_assert(tarn_records::head_is_tlvkit_head<                         \
                      tarn_records::init_of_t<decltype(INIT)>>(),            \
                  "a table head is laid out as tlvkit_table_head_t");        \
    extern TARN_API const X##_tbl_type X##_tbl_def __asm__(#X "_tbl");       \
    constexpr X##_tbl_type X##_tbl_def = {{SIZE, NAME, INIT, 0},             \
                                          {__VA_ARGS__}};

// The seven wrappers shared by every record: R is the operation prefix, T
// the record type, TBL the descriptor table.
#define TARN_DEFINE_RECORD_OPS(R, T, TBL)                                    \
    uint32_t R##_field_itr_init(tlvkit_field_itr_t *itr, const void *tlv,    \
                                uint32_t tlv_len, void *record,              \
                                uint16_t flags)                              \
    {                                                                        \
        return tlvkit_field_itr_init(itr, tlv, tlv_len, &TBL, record,        \
                                     flags);                                 \
    }                                                                        \
    uint32_t R##_field_get_next(tlvkit_field_itr_t *itr,                     \
                                tlvkit_field_value_t *out)                   \
    {                                                                        \
        return tlvkit_field_itr_get_next(itr, out);                          \
    }                                                                        \
    uint32_t R##_get_field(const void *tlv, uint32_t tlv_len,                \
                           uint32_t type_id, const void **value,             \
                           uint32_t *value_len)                              \
    {                                                                        \
        return tlvkit_get_field(tlv, tlv_len, type_id, value, value_len,     \
                                &TBL);                                       \
    }                                                                        \
    int32_t R##_get_struct_sz(const void *tlv)                               \
    {                                                                        \
        uint32_t size = 0;                                                   \
        const uint32_t e =                                                   \
            tlvkit_table_get_struct_size_from_tlv(&size, tlv, 0, &TBL);      \
        if (e != 0) {                                                        \
            tlvkit_error_print("%s: ERR 0x%x\n", #R "_get_struct_sz", e);   \
            return -1;                                                       \
        }                                                                    \
        return static_cast<int32_t>(size);                                   \
    }                                                                        \
    uint32_t R##_get_tlv_sz(const T *record)                                 \
    {                                                                        \
        return tlvkit_table_size(&TBL, record);                              \
    }                                                                        \
    uint32_t R##_to_tlv(const T *record, void **buf, uint32_t *len,          \
                        uint32_t a, uint32_t *b, uint32_t flag)              \
    {                                                                        \
        const uint32_t e = tlvkit_table_convert_struct_to_tlv(               \
            buf, len, &TBL, record, a, b, flag);                             \
        if (e != 0)                                                          \
            tlvkit_error_print("%s: ERR 0x%x\n", #R "_to_tlv", e);          \
        return e;                                                            \
    }                                                                        \
    uint32_t R##_to_struct(T **record, const void *tlv, uint32_t tlv_len,    \
                           uint32_t flag)                                    \
    {                                                                        \
        void *p = record != nullptr ? static_cast<void *>(*record) : nullptr;\
        const uint32_t e = tlvkit_table_convert_tlv_to_struct(               \
            record != nullptr ? &p : nullptr, tlv, tlv_len, &TBL, flag);     \
        if (e != 0)                                                          \
            tlvkit_error_print("%s: ERR 0x%x\n", #R "_to_struct", e);       \
        else                                                                 \
            *record = static_cast<T *>(p);                                   \
        return e;                                                            \
    }

#endif
