/// @file
/// Shared types of libKorvane: variant tags, the variant record, the BSTR
/// buffer, the safe-array base record and the opaque handle classes.
///
/// The layouts below are part of the binary interface: applications built
/// against them exchange these records with the library by pointer.
#ifndef KORVANE_TYPES_H
#define KORVANE_TYPES_H

#include <cstddef>
#include <cstdint>
#include <new>

#include "korvane/export.h"

// ---------------------------------------------------------------------------
// Variant type tags.

/// A variant type tag: one of TVARENUM.
typedef uint16_t TVARTYPE;

/// The variant type tags.
enum TVARENUM : TVARTYPE {
    TVT_EMPTY = 0,      ///< no value
    TVT_CHAR = 1,       ///< char, read as an unsigned byte by every conversion
    TVT_BYTE = 2,       ///< unsigned char
    TVT_SHORT = 3,      ///< signed 16-bit
    TVT_USHORT = 4,     ///< unsigned 16-bit
    TVT_INT = 5,        ///< signed 32-bit
    TVT_UINT = 6,       ///< unsigned 32-bit
    TVT_LONG = 7,       ///< signed 64-bit (long)
    TVT_ULONG = 8,      ///< unsigned 64-bit (unsigned long)
    TVT_LONGLONG = 9,   ///< signed 64-bit (long long)
    TVT_ULONGLONG = 10, ///< unsigned 64-bit (unsigned long long)
    TVT_FLOAT = 11,     ///< IEEE single
    TVT_DOUBLE = 12,    ///< IEEE double
    TVT_STRING = 13,    ///< owned bstrunit pointer, may be null
    TVT_BOOL = 14,      ///< one byte, 0 or 1
};

// ---------------------------------------------------------------------------
// bstrunit: the BSTR buffer. One block of 4 + length bytes allocated with
// `new char[]`: a signed 32-bit length, then `length` data bytes. A unit made
// from a C string counts and stores the terminating NUL. Units handed to the
// caller are released with bstrunit_free (array delete of the block).

/// The BSTR buffer's header; the data bytes follow it in the same block.
struct bstrunit {
    int32_t length; ///< count of data bytes that follow this field
};
static_assert(sizeof(bstrunit) == 4, "bstrunit header is the 4-byte length");

///@{
/// The unit's data bytes, right after its length field.
inline char* bstrunit_data(bstrunit* unit) {
    return reinterpret_cast<char*>(unit) + sizeof(bstrunit);
}
inline const char* bstrunit_data(const bstrunit* unit) {
    return reinterpret_cast<const char*>(unit) + sizeof(bstrunit);
}
///@}

/// Allocates a unit of `length` data bytes (uninitialised) the way the
/// library does, so the library may free it and vice versa. A negative length
/// throws std::bad_array_new_length: the block would be smaller than its
/// 4-byte length field.
inline bstrunit* bstrunit_alloc(int32_t length) {
    if (length < 0)
        throw std::bad_array_new_length();
    char* block = new char[static_cast<size_t>(static_cast<int64_t>(length)) + sizeof(bstrunit)];
    return new (block) bstrunit{length};
}

/// Releases a unit obtained from the library or from bstrunit_alloc.
inline void bstrunit_free(bstrunit* unit) {
    delete[] reinterpret_cast<char*>(unit);
}

// ---------------------------------------------------------------------------
// tagTVARIANT: the caller-allocated variant record. The value union is
// 8-byte aligned, so the record is 16 bytes with the value at offset 8. A
// scalar occupies the low-order bytes of the union at its own width.

/// The caller-allocated 16-byte variant record.
typedef struct tagTVARIANT {
    TVARTYPE vt; ///< the type tag
    /// The value, at its own width, or a string's owned unit.
    union {
        char charVal;
        unsigned char byteVal;
        short shortVal;
        unsigned short ushortVal;
        int intVal;
        unsigned int uintVal;
        long longVal;
        unsigned long ulongVal;
        long long longlongVal;
        unsigned long long ulonglongVal;
        float floatVal;
        double doubleVal;
        bool boolVal;
        bstrunit* bstrVal;
        uint64_t bits; ///< the whole 64-bit value
    } value;
} tagTVARIANT;

static_assert(sizeof(tagTVARIANT) == 16, "tagTVARIANT is a 16-byte record");
static_assert(offsetof(tagTVARIANT, vt) == 0, "the tag leads the record");
static_assert(offsetof(tagTVARIANT, value) == 8, "the value union sits at offset 8");
static_assert(sizeof(long) == 8, "long is 64-bit on the supported targets");

// ---------------------------------------------------------------------------
// tagTSAFEITEMARRAY: the public base record of a safe array handle.

/// The public base record of a safe array handle.
struct tagTSAFEITEMARRAY {
    TVARTYPE vt;    ///< element type, fixed at creation
    uint32_t count; ///< number of elements
    void* data;     ///< element storage, or null
};
static_assert(offsetof(tagTSAFEITEMARRAY, count) == 4, "count follows the 16-bit type");
static_assert(offsetof(tagTSAFEITEMARRAY, data) == 8, "data pointer at offset 8");
static_assert(sizeof(tagTSAFEITEMARRAY) == 16, "tagTSAFEITEMARRAY is 16 bytes");

// ---------------------------------------------------------------------------
// Handles: opaque pointers to library objects. Create functions return them;
// destroy functions take the address of the caller's variable and null it.

class bstr_handle;
class safearray_handle;
class variant_wrapper_handle;
class sharememory_handle;
class mutex_handle;
class recursive_mutex_handle;
class rw_mutex_handle;
class condition_handle;
class event_handle;
class semaphore_handle;

#endif
