/// @file
/// Automation data types: BSTR strings, variants and their conversion, safe
/// arrays, value resolution and type names, and the variant wrapper.
///
/// Handle rules common to every family: create returns a new handle (there is
/// no failure result other than the runtime's allocation exception); destroy
/// takes the address of the caller's handle variable, ignores a variable that
/// holds null, destroys the object and stores null in the variable; every other
/// function accepts a null handle and then does nothing and returns false, 0 or
/// null. Boolean results are exactly 0 or 1.
///
/// Memory the library hands to the caller (detached units, string elements
/// copied out of safe arrays) is allocated with array new: release it with
/// bstrunit_free. The library never frees caller memory, except a unit given
/// to bstr_attach_bstrunit.
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
// and "empty unit" (length 0) are different states. The setters clear the
// handle before they read their source.

/// New handle holding no string.
KORVANE_API bstr_handle* bstr_create(void);
/// Frees the unit and the handle; nulls *handle. A null *handle is ignored.
KORVANE_API void bstr_destroy(bstr_handle** handle);
/// Frees the unit; the handle then holds no string. Null handle: nothing.
KORVANE_API void bstr_clear(bstr_handle* handle);
/// Stores a copy of `text` with its NUL (length strlen + 1); a null text leaves
/// no string. True; a null handle returns true exactly when text is null.
KORVANE_API bool bstr_set_string(bstr_handle* handle, const char* text);
/// Stores a deep copy of `unit` as it stands (its bytes need not end in NUL);
/// a null unit leaves no string; the caller keeps `unit`. True; a null handle
/// returns true exactly when unit is null. A negative length field throws.
KORVANE_API bool bstr_set_bstrunit(bstr_handle* handle, const bstrunit* unit);
/// Stores a deep copy of the unit of `source`; a null source, or one holding no
/// string, leaves no string. The destination is cleared first, so
/// bstr_set_bstr(h, h) leaves h holding no string. True; a null destination
/// returns true exactly when source is null.
KORVANE_API bool bstr_set_bstr(bstr_handle* destination, bstr_handle* source);
/// Address of the unit's data bytes (owned by the handle), or null for no
/// string or a null handle. Valid until the next change of the handle.
KORVANE_API const char* bstr_get_string(const bstr_handle* handle);
/// True when both are null, both hold no string, or both hold units of the
/// same length and bytes. A null handle equals only a null handle.
KORVANE_API bool bstr_equal_bstr(const bstr_handle* a, const bstr_handle* b);
/// True when the handle's unit and `unit` have the same length and bytes, or
/// when `unit` is null and the handle is null or holds no string.
KORVANE_API bool bstr_equal_bstrunit(const bstr_handle* handle, const bstrunit* unit);
/// Installs `unit` without copying: the handle takes ownership and frees its
/// previous unit. A null unit just clears. Null handle: nothing, and the
/// caller keeps `unit`.
KORVANE_API void bstr_attach_bstrunit(bstr_handle* handle, bstrunit* unit);
/// Hands the unit over (the caller frees it with bstrunit_free); the handle
/// then holds no string. Null for no string or a null handle.
KORVANE_API bstrunit* bstr_detach_bstrunit(bstr_handle* handle);

// ---------------------------------------------------------------------------
// Variant values. `v` must point at a caller-owned record initialised with
// variant_init. A null record is ignored: nothing happens and the boolean
// functions return false (variant_equal_variant holds two nulls equal). A
// string variant owns its unit: clearing, setting or converting it away
// frees the unit.

/// Zeroes all 16 bytes (tag TVT_EMPTY).
KORVANE_API void variant_init(tagTVARIANT* v);
/// Frees an owned string and empties the variant.
KORVANE_API void variant_clear(tagTVARIANT* v);
/// Deep copy: a string gets a unit of its own. The destination is cleared
/// first, so variant_set_variant(v, v) leaves v empty.
KORVANE_API void variant_set_variant(tagTVARIANT* destination, const tagTVARIANT* source);
/// Makes v a string holding a deep copy of `unit` (null unit: a string variant
/// holding no string). The caller keeps `unit`.
KORVANE_API void variant_set_bstrunit(tagTVARIANT* v, const bstrunit* unit);
/// Makes v a string holding a copy of `text` with its NUL. A null text leaves
/// v exactly as it was. The flag works as for the scalar setters.
KORVANE_API void variant_set_string(tagTVARIANT* v, const char* text, bool keep);
///@{
/// Scalar setters: clear v, then store the value with its own tag. The flag is
/// kept for existing callers; either value gives the same record.
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
///@}
/// True for the same tag and value (floats by IEEE equality; two empties are
/// equal). Two TVT_LONGLONG or TVT_ULONGLONG variants are never equal; strings
/// compare their length field and all but the last four data bytes. Both
/// quirks are relied upon by existing callers.
KORVANE_API bool variant_equal_variant(const tagTVARIANT* a, const tagTVARIANT* b);
/// Stores the size of a tag's value in bits and returns true; false (and 0)
/// for TVT_EMPTY, TVT_STRING and unknown tags. A null `bits` is not written.
KORVANE_API bool variant_get_datatype_size(TVARTYPE type, uint32_t* bits);

/// Converts v in place to `target`. True when v now has the target tag; false
/// when the pair is refused, and v is then unchanged. Converting away from a
/// string consumes (frees) its unit; converting to a string gives v a new one.
KORVANE_API bool variant_change_type(tagTVARIANT* v, TVARTYPE target);

// ---------------------------------------------------------------------------
// Safe arrays: one-dimensional arrays of one variant type. Value and out
// pointers point at a variable of the element's scalar type, or at a
// bstrunit pointer for TVT_STRING arrays. The array owns its storage and the
// units in it.

/// New array of `count` zeroed elements (string elements hold no unit). Type 0
/// and unknown types get no storage but report the count, and refuse every
/// element operation.
KORVANE_API safearray_handle* safearray_create(TVARTYPE type, uint32_t count);
/// Releases snapshots, elements and the handle; nulls *handle. A null *handle
/// is ignored.
KORVANE_API void safearray_destroy(safearray_handle** handle);
/// Frees the storage (and its string units); count 0, type kept, snapshots
/// kept. Null handle: nothing.
KORVANE_API void safearray_clear(safearray_handle* handle);
/// Element type; 0 for a null handle.
KORVANE_API TVARTYPE safearray_get_element_type(const safearray_handle* handle);
/// Element count; 0 for a null handle.
KORVANE_API uint32_t safearray_get_element_count(const safearray_handle* handle);
/// Copies *value into element `index`; a string element takes a deep copy of
/// the unit (the caller keeps its own) and the unit it held before is not
/// freed, as existing callers expect. False for a null handle or value, an
/// index out of bounds, or a type without storage.
KORVANE_API bool safearray_set_element(safearray_handle* handle, uint32_t index, const void* value);
/// Copies element `index` into *out; for strings a deep copy that the caller
/// frees with bstrunit_free (null for an element holding no unit). False as
/// for safearray_set_element.
KORVANE_API bool safearray_get_element(const safearray_handle* handle, uint32_t index, void* out);
/// Stores in *out a snapshot copy of the whole storage (null, and true, for an
/// empty array). The array keeps every snapshot until unaccess or destroy,
/// which free its storage; the unit copies of a string snapshot are the
/// caller's to free. False for a null handle or out, or a type without
/// storage (then *out is untouched).
KORVANE_API bool safearray_access_element(safearray_handle* handle, void** out);
/// Releases every snapshot handed out so far; their pointers become invalid.
/// True; false for a null handle.
KORVANE_API bool safearray_unaccess_element(safearray_handle* handle);
/// Grows (zero-filled) or shrinks the array to `count`; true. On type 0 or
/// unknown types the count changes and the result is false. False for a null
/// handle.
KORVANE_API bool safearray_resize(safearray_handle* handle, uint32_t count);

// ---------------------------------------------------------------------------
// Value resolution and type names.

///@{
/// The variant read as the named scalar, converting a private copy when the
/// tag differs. The variant itself is never changed. 0 for a null variant.
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
///@}
/// As above; a TVT_LONGLONG or TVT_ULONGLONG variant yields the raw low byte of
/// its value (2 stays 2), as existing callers expect.
KORVANE_API bool variant_resolve_as_bool(const tagTVARIANT* v);
/// Narrows an integer value to a field of `bits` bits in place (unsigned 32-
/// and 64-bit types keep the low bits, signed types copy bit bits - 1 upwards
/// when it is set, byte and unsigned short stay as they are). True for the ten
/// integer tags; false, with nothing changed, otherwise or for a null variant.
KORVANE_API bool variant_ajust_data_value(tagTVARIANT* v, uint32_t bits);
/// Type name of a tag ("int", "unsigned long long", ...) into the caller's
/// buffer: a null buffer stores the size needed (name length + 1) in *length;
/// a large enough buffer gets the name and its NUL; a smaller one gets nothing,
/// *length is unchanged and the result false. False for TVT_EMPTY, unknown
/// tags or a null length.
KORVANE_API bool variant_resolve_display_type(TVARTYPE type, char* buffer, size_t* length);
/// Stores the tag of a type name (exact, case-sensitive) and returns true; an
/// unknown name stores 0 and returns false; a null name or type returns false
/// and stores nothing.
KORVANE_API bool variant_resolve_type(const char* name, TVARTYPE* type);

/// Clears v, then fills it from `reader`, which may be implemented by the
/// application: the type name it reports selects the getter that writes the
/// value. A null reader, or a name that is no type, leaves v empty. The
/// caller keeps its reference to the reader.
KORVANE_API void variant_set_variantread(tagTVARIANT* v, IVariantRead* reader);

// ---------------------------------------------------------------------------
// Variant wrapper: binds one variant (borrowed or owned) to a reader and a
// writer and hands them out according to its mode.

/// New wrapper: readable, not writable, unbound.
KORVANE_API variant_wrapper_handle* variant_wrapper_create(void);
/// Frees an owned value, releases the writer then the reader, frees the handle
/// and nulls *handle; a null *handle is ignored. Interfaces still held by
/// callers survive, unbound: their operations then return false.
KORVANE_API void variant_wrapper_destroy(variant_wrapper_handle** handle);
/// Sets whether the reader and the writer are handed out. Null handle: nothing.
KORVANE_API void variant_wrapper_set_mode(variant_wrapper_handle* handle, bool readable, bool writable);
/// Frees an owned value, then binds `value`: borrowed (the caller keeps it and
/// it must outlive the binding) when copy is false or value is null (null
/// unbinds), else a private copy that the wrapper owns. Null handle: nothing.
KORVANE_API void variant_wrapper_set_wrapper_value(variant_wrapper_handle* handle, tagTVARIANT* value, bool copy);
/// The bound variant (the caller's own or the private copy), or null when
/// unbound or for a null handle.
KORVANE_API tagTVARIANT* variant_wrapper_get_wrapper_value(variant_wrapper_handle* handle);
/// Type name of the bound variant, caller-buffer protocol as for
/// variant_resolve_display_type (an empty or unknown tag gives ""). False when
/// unbound, or for a null handle or length.
KORVANE_API bool variant_wrapper_get_type(variant_wrapper_handle* handle, char* buffer, unsigned long* length);
/// Converts the bound variant to the named type. True even when the conversion
/// is refused or the name unknown; false only when unbound or for a null handle.
KORVANE_API bool variant_wrapper_set_type(variant_wrapper_handle* handle, const char* name);
/// The reader with a reference added (the caller gives it back with
/// releaseRef), or null when the wrapper is not readable or the handle null.
KORVANE_API IVariantRead* variant_wrapper_get_variantread(variant_wrapper_handle* handle);
/// The writer with a reference added, or null when the wrapper is not
/// writable or the handle null.
KORVANE_API IVariantWrite* variant_wrapper_get_variantwrite(variant_wrapper_handle* handle);
/// New wrapper with the same mode that owns a copy of the bound value (even
/// when the original borrows it); null for a null handle.
KORVANE_API variant_wrapper_handle* variant_wrapper_clone(variant_wrapper_handle* handle);

KORVANE_END_DECLS

#endif
