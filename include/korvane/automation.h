// Automation data types: BSTR strings, variants and their conversion, safe
// arrays, value resolution and type names, and the variant wrapper.
//
// Handle rules common to every family: create returns a new handle (there is
// no failure result other than the runtime's allocation exception); destroy
// takes the address of the caller's handle variable, ignores a variable that
// holds null, destroys the object and stores null in the variable; every other
// function accepts a null handle and then does nothing and returns false, 0 or
// null. Boolean results are exactly 0 or 1.
#ifndef KORVANE_AUTOMATION_H
#define KORVANE_AUTOMATION_H

#include <cstddef>
#include <cstdint>

#include "korvane/export.h"
#include "korvane/types.h"

class IVariantRead;
class IVariantWrite;

KORVANE_BEGIN_DECLS

// ---------------------------------------------------------------------------
// BSTR strings. A handle owns at most one bstrunit. "No string" (null unit)
// and "empty unit" (length 0) are different states.

// New handle holding no string.
KORVANE_API bstr_handle* bstr_create(void);
// Frees the unit and the handle; nulls *handle. A null *handle is ignored.
KORVANE_API void bstr_destroy(bstr_handle** handle);
// Frees the unit; the handle then holds no string.
KORVANE_API void bstr_clear(bstr_handle* handle);
// Copies `text` with its NUL (length strlen + 1). A null text leaves no
// string. Null handle: returns true exactly when text is null.
KORVANE_API bool bstr_set_string(bstr_handle* handle, const char* text);
// Deep-copies `unit` as it stands. Null handle: true exactly when unit is null.
KORVANE_API bool bstr_set_bstrunit(bstr_handle* handle, const bstrunit* unit);
// Deep-copies the unit of `source`. The destination is cleared first, so
// bstr_set_bstr(h, h) leaves h holding no string.
KORVANE_API bool bstr_set_bstr(bstr_handle* destination, bstr_handle* source);
// Address of the unit's data bytes, or null when there is no string. Valid
// until the next change of the handle.
KORVANE_API const char* bstr_get_string(const bstr_handle* handle);
// Equal when both are null, both hold no string, or both hold units of the
// same length and bytes. A null handle equals only a null handle.
KORVANE_API bool bstr_equal_bstr(const bstr_handle* a, const bstr_handle* b);
// Compares the handle's unit with `unit` (length and bytes).
KORVANE_API bool bstr_equal_bstrunit(const bstr_handle* handle, const bstrunit* unit);
// Installs `unit` without copying; the handle takes ownership.
KORVANE_API void bstr_attach_bstrunit(bstr_handle* handle, bstrunit* unit);
// Hands the unit to the caller (free it with bstrunit_free); the handle then
// holds no string.
KORVANE_API bstrunit* bstr_detach_bstrunit(bstr_handle* handle);

// ---------------------------------------------------------------------------
// Variant values. `v` must point at a caller-owned record initialised with
// variant_init. A null record is ignored: nothing happens and the boolean
// functions return false (variant_equal_variant holds two nulls equal).

// Zeroes all 16 bytes (tag TVT_EMPTY).
KORVANE_API void variant_init(tagTVARIANT* v);
// Frees an owned string and empties the variant.
KORVANE_API void variant_clear(tagTVARIANT* v);
// Deep copy. The destination is cleared first, so variant_set_variant(v, v)
// leaves v empty.
KORVANE_API void variant_set_variant(tagTVARIANT* destination, const tagTVARIANT* source);
// Makes v a string holding a deep copy of `unit` (null unit: no string).
KORVANE_API void variant_set_bstrunit(tagTVARIANT* v, const bstrunit* unit);
// Makes v a string holding a copy of `text` with its NUL. A null text leaves
// v exactly as it was.
KORVANE_API void variant_set_string(tagTVARIANT* v, const char* text, bool keep);
// Scalar setters: clear v, then store the value with its own tag. The flag is
// kept for existing callers; either value gives the same record.
KORVANE_API void variant_set_char(tagTVARIANT* v, char value, bool keep);
KORVANE_API void variant_set_byte(tagTVARIANT* v, unsigned char value, bool keep);
KORVANE_API void variant_set_short(tagTVARIANT* v, short value, bool keep);
KORVANE_API void variant_set_ushort(tagTVARIANT* v, unsigned short value, bool keep);
KORVANE_API void variant_set_int(tagTVARIANT* v, int value, bool keep);
KORVANE_API void variant_set_uint(tagTVARIANT* v, unsigned int value, bool keep);
KORVANE_API void variant_set_long(tagTVARIANT* v, long value, bool keep);
KORVANE_API void variant_set_ulong(tagTVARIANT* v, unsigned long value, bool keep);
KORVANE_API void variant_set_longlong(tagTVARIANT* v, long long value, bool keep);
KORVANE_API void variant_set_ulonglong(tagTVARIANT* v, unsigned long long value, bool keep);
KORVANE_API void variant_set_float(tagTVARIANT* v, float value, bool keep);
KORVANE_API void variant_set_double(tagTVARIANT* v, double value, bool keep);
KORVANE_API void variant_set_bool(tagTVARIANT* v, bool value, bool keep);
// Same tag and value. Two TVT_LONGLONG or TVT_ULONGLONG variants are never
// equal; strings compare their length field and all but the last four data
// bytes. Both quirks are relied upon by existing callers.
KORVANE_API bool variant_equal_variant(const tagTVARIANT* a, const tagTVARIANT* b);
// Size of a tag's value in bits; false (and 0) for TVT_EMPTY, TVT_STRING and
// unknown tags.
KORVANE_API bool variant_get_datatype_size(TVARTYPE type, uint32_t* bits);

// Converts v in place to `target`. True when v now has the target tag; false
// when the pair is refused, and v is then unchanged. Converting away from a
// string consumes the text.
KORVANE_API bool variant_change_type(tagTVARIANT* v, TVARTYPE target);

// ---------------------------------------------------------------------------
// Safe arrays: one-dimensional arrays of one variant type. Value and out
// pointers point at a variable of the element's scalar type, or at a
// bstrunit pointer for TVT_STRING arrays.

// New array of `count` zeroed elements. Type 0 and unknown types get no
// storage but report the count, and refuse every element operation.
KORVANE_API safearray_handle* safearray_create(TVARTYPE type, uint32_t count);
// Releases snapshots, elements and the handle; nulls *handle.
KORVANE_API void safearray_destroy(safearray_handle** handle);
// Frees the storage (and string elements); count 0, type kept.
KORVANE_API void safearray_clear(safearray_handle* handle);
// Element type; 0 for a null handle.
KORVANE_API TVARTYPE safearray_get_element_type(const safearray_handle* handle);
// Element count; 0 for a null handle.
KORVANE_API uint32_t safearray_get_element_count(const safearray_handle* handle);
// Copies *value into element `index` (strings: a deep copy of the unit).
KORVANE_API bool safearray_set_element(safearray_handle* handle, uint32_t index, const void* value);
// Copies element `index` into *out (strings: a deep copy the caller frees).
KORVANE_API bool safearray_get_element(const safearray_handle* handle, uint32_t index, void* out);
// Hands out a snapshot copy of the whole storage in *out (null for an empty
// array). The array keeps every snapshot until unaccess or destroy.
KORVANE_API bool safearray_access_element(safearray_handle* handle, void** out);
// Releases every snapshot handed out so far.
KORVANE_API bool safearray_unaccess_element(safearray_handle* handle);
// Grows (zero-filled) or shrinks the array. On type 0 or unknown types the
// count changes and the result is false.
KORVANE_API bool safearray_resize(safearray_handle* handle, uint32_t count);

// ---------------------------------------------------------------------------
// Value resolution and type names.

// The variant read as the named scalar, converting a private copy when the
// tag differs. The variant itself is never changed.
KORVANE_API char variant_resolve_as_char(const tagTVARIANT* v);
KORVANE_API unsigned char variant_resolve_as_byte(const tagTVARIANT* v);
KORVANE_API short variant_resolve_as_short(const tagTVARIANT* v);
KORVANE_API unsigned short variant_resolve_as_ushort(const tagTVARIANT* v);
KORVANE_API int variant_resolve_as_int(const tagTVARIANT* v);
KORVANE_API unsigned int variant_resolve_as_uint(const tagTVARIANT* v);
KORVANE_API long variant_resolve_as_long(const tagTVARIANT* v);
KORVANE_API unsigned long variant_resolve_as_ulong(const tagTVARIANT* v);
KORVANE_API long long variant_resolve_as_longlong(const tagTVARIANT* v);
KORVANE_API unsigned long long variant_resolve_as_ulonglong(const tagTVARIANT* v);
KORVANE_API float variant_resolve_as_float(const tagTVARIANT* v);
KORVANE_API double variant_resolve_as_double(const tagTVARIANT* v);
// A TVT_LONGLONG or TVT_ULONGLONG variant yields its raw low byte.
KORVANE_API bool variant_resolve_as_bool(const tagTVARIANT* v);
// Narrows an integer value to a field of `bits` bits in place (sign-filling
// signed types); true for the ten integer tags.
KORVANE_API bool variant_ajust_data_value(tagTVARIANT* v, uint32_t bits);
// Type name of a tag ("int", "unsigned long long", ...), caller-buffer
// protocol; false for TVT_EMPTY and unknown tags.
KORVANE_API bool variant_resolve_display_type(TVARTYPE type, char* buffer, size_t* length);
// Tag of a type name (exact, case-sensitive); false and 0 when unknown.
KORVANE_API bool variant_resolve_type(const char* name, TVARTYPE* type);

// Fills v from any reader, including one implemented by the application.
KORVANE_API void variant_set_variantread(tagTVARIANT* v, IVariantRead* reader);

// ---------------------------------------------------------------------------
// Variant wrapper: binds one variant (borrowed or owned) to a reader and a
// writer and hands them out according to its mode (new: readable only).

KORVANE_API variant_wrapper_handle* variant_wrapper_create(void);
// Frees an owned value, releases the writer then the reader, frees the handle.
KORVANE_API void variant_wrapper_destroy(variant_wrapper_handle** handle);
KORVANE_API void variant_wrapper_set_mode(variant_wrapper_handle* handle, bool readable, bool writable);
// Binds `value`: borrowed when copy is false or value is null (null unbinds),
// else a private copy that the wrapper owns.
KORVANE_API void variant_wrapper_set_wrapper_value(variant_wrapper_handle* handle, tagTVARIANT* value, bool copy);
// The bound variant (the caller's own or the private copy), or null.
KORVANE_API tagTVARIANT* variant_wrapper_get_wrapper_value(variant_wrapper_handle* handle);
// Type name of the bound variant, caller-buffer protocol; false when unbound.
KORVANE_API bool variant_wrapper_get_type(variant_wrapper_handle* handle, char* buffer, unsigned long* length);
// Converts the bound variant to the named type; false only when unbound.
KORVANE_API bool variant_wrapper_set_type(variant_wrapper_handle* handle, const char* name);
// The reader with a reference added (release it with releaseRef), or null
// when the wrapper is not readable.
KORVANE_API IVariantRead* variant_wrapper_get_variantread(variant_wrapper_handle* handle);
// The writer with a reference added, or null when the wrapper is not writable.
KORVANE_API IVariantWrite* variant_wrapper_get_variantwrite(variant_wrapper_handle* handle);
// New wrapper with the same mode and an owned copy of the bound value.
KORVANE_API variant_wrapper_handle* variant_wrapper_clone(variant_wrapper_handle* handle);

KORVANE_END_DECLS

#endif
