/**
 * Basic types and result codes of the media middleware `libzu3`.
 *
 * Every middleware function has C linkage and returns a u32 result unless its declaration says
 * otherwise. All records are little-endian and naturally aligned; on the 32-bit device their layout
 * is fixed, which the static assertions beside each record check if a pointer has four bytes.
 */
#ifndef ZU3_TYPES_H
#define ZU3_TYPES_H

#include <stddef.h>
#include <stdint.h>

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef uint64_t u64;
typedef int32_t s32;
typedef int64_t s64;

/** Results of middleware calls. Any other value is a failure; its meaning depends on the module. */
enum {
    /** success */
    ZU_OK = 0,
    /** from a module initialisation: another user of the process has done it */
    ZU_ALREADY_INITIALISED = 2,
    /** a step or a precondition failed */
    ZU_FAILURE = 3,
    /** a NULL record, an unknown handle or a value out of range */
    ZU_INVALID_ARGUMENT = 8,
    /** from a multiplexer push: nothing was accepted; try again */
    ZU_BUSY = 15,
};

#ifdef __cplusplus
/**
 * Checks a record against the device's layout. With other pointer sizes, both sides compile the
 * same header.
 */
#define ZU_ASSERT_DEVICE_SIZE(type, bytes)                                                         \
    static_assert(sizeof(void*) != 4 || sizeof(type) == (bytes),                                   \
                  #type " differs from the device's size")
#define ZU_ASSERT_DEVICE_OFFSET(type, field, bytes)                                                \
    static_assert(sizeof(void*) != 4 || offsetof(type, field) == (bytes),                          \
                  #type "::" #field " differs from the device's offset")
#define ZU_EXTERN_C_BEGIN extern "C" {
#define ZU_EXTERN_C_END }
#else
#define ZU_ASSERT_DEVICE_SIZE(type, bytes)                                                         \
    _Static_assert(sizeof(void*) != 4 || sizeof(type) == (bytes), #type)
#define ZU_ASSERT_DEVICE_OFFSET(type, field, bytes)                                                \
    _Static_assert(sizeof(void*) != 4 || offsetof(type, field) == (bytes), #type)
#define ZU_EXTERN_C_BEGIN
#define ZU_EXTERN_C_END
#endif

#endif
