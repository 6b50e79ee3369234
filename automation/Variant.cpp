// Variant values: initialise, clear, copy, the typed setters, equality and
// the size of each type. Conversion lives in VariantConversion.cpp.
#include <cstring>

#include "automation/AutomationInternal.h"
#include "automation/ScalarTypes.h"
#include "common/BoolExport.h"

namespace {

using korvane::Scalar;

// Empties v as variant_clear does but hands its string unit, if any, to the
// caller, who frees it by letting the result go. Every setter keeps the old
// unit alive this way until the new value is built, so a source that lies
// inside it (the variant's own text or unit) is still readable.
korvane::UniqueUnit takeCleared(tagTVARIANT* v) {
    if (v->vt != TVT_STRING) {
        std::memset(v, 0, sizeof *v);
        return nullptr;
    }
    // A string clears only its tag and value: the rest of the record is left
    // as the caller had it.
    korvane::UniqueUnit unit(v->value.bstrVal);
    v->vt = TVT_EMPTY;
    v->value.bits = 0;
    return unit;
}

// The flag rule every setter shares. With keep, v takes the value with its
// own type. Without it, the value is set into a temporary with its own type,
// converted to the tag v holds and copied back. v is cleared before its tag
// is read, so that tag is always TVT_EMPTY, the conversion is refused and the
// result equals the one with keep. The order is kept on purpose: existing
// callers rely on a setter never coercing a value into a preset type.
template <class SetOwnType>
void setThroughFlag(tagTVARIANT* v, bool keep, SetOwnType setOwnType) {
    if (v == nullptr)
        return;
    const korvane::UniqueUnit previous = takeCleared(v);
    if (keep) {
        setOwnType(v);
        return;
    }
    korvane::ScopedVariant temporary;
    setOwnType(temporary.get());
    variant_change_type(temporary.get(), v->vt);
    variant_set_variant(v, temporary.get());
}

// Stores a scalar at its own width into a cleared variant.
template <TVARTYPE Tag>
void setScalar(tagTVARIANT* v, Scalar<Tag> value, bool keep) {
    setThroughFlag(v, keep, [value](tagTVARIANT* target) {
        korvane::writeScalar(target, value);
        target->vt = Tag;
    });
}

// Scalars compare their value bytes at their own width, floats and doubles
// by IEEE equality. Two TVT_LONGLONG or TVT_ULONGLONG variants are never
// equal, not even a variant with itself: kept on purpose for existing callers.
template <TVARTYPE Tag>
bool sameScalar(const tagTVARIANT* a, const tagTVARIANT* b) {
    if constexpr (Tag == TVT_LONGLONG || Tag == TVT_ULONGLONG) {
        return false;
    } else if constexpr (std::is_floating_point<Scalar<Tag>>::value) {
        return korvane::readScalar<Scalar<Tag>>(a) == korvane::readScalar<Scalar<Tag>>(b);
    } else {
        using Bits = korvane::ScalarBits<Tag>;
        return korvane::readScalar<Bits>(a) == korvane::readScalar<Bits>(b);
    }
}

// Strings compare their length field and then `length` bytes from the start
// of the unit, so the last four data bytes are never looked at ("abcd" equals
// "abce"). Kept on purpose: existing callers rely on this comparison.
bool sameStringUnit(const bstrunit* a, const bstrunit* b) {
    if (a == nullptr)
        return b == nullptr;
    if (b == nullptr || a->length != b->length)
        return false;
    return a->length <= 0 || std::memcmp(a, b, static_cast<size_t>(a->length)) == 0;
}

} // namespace

void variant_init(tagTVARIANT* v) {
    if (v != nullptr)
        std::memset(v, 0, sizeof *v);
}

void variant_clear(tagTVARIANT* v) {
    if (v != nullptr)
        takeCleared(v);
}

void variant_set_variant(tagTVARIANT* destination, const tagTVARIANT* source) {
    if (destination == nullptr)
        return;
    // The destination is cleared before the source is read, so copying a
    // variant onto itself leaves it empty; existing callers rely on this.
    const korvane::UniqueUnit previous = takeCleared(destination);
    if (source == nullptr)
        return;
    if (source->vt != TVT_STRING) {
        std::memmove(destination, source, sizeof *destination);
        return;
    }
    destination->vt = TVT_STRING;
    destination->value.bstrVal = korvane::copyUnit(source->value.bstrVal);
}

void variant_set_bstrunit(tagTVARIANT* v, const bstrunit* unit) {
    if (v == nullptr)
        return;
    const korvane::UniqueUnit previous = takeCleared(v);
    v->vt = TVT_STRING;
    v->value.bstrVal = korvane::copyUnit(unit);
}

void variant_set_string(tagTVARIANT* v, const char* text, bool keep) {
    // Unlike every other setter, a null text leaves v exactly as it was.
    if (text == nullptr)
        return;
    setThroughFlag(v, keep, [text](tagTVARIANT* target) {
        target->vt = TVT_STRING;
        target->value.bstrVal = korvane::unitFromString(text);
    });
}

void variant_set_char(tagTVARIANT* v, char value, bool keep) { setScalar<TVT_CHAR>(v, value, keep); }
void variant_set_byte(tagTVARIANT* v, unsigned char value, bool keep) { setScalar<TVT_BYTE>(v, value, keep); }
void variant_set_short(tagTVARIANT* v, short value, bool keep) { setScalar<TVT_SHORT>(v, value, keep); }
void variant_set_ushort(tagTVARIANT* v, unsigned short value, bool keep) { setScalar<TVT_USHORT>(v, value, keep); }
void variant_set_int(tagTVARIANT* v, int value, bool keep) { setScalar<TVT_INT>(v, value, keep); }
void variant_set_uint(tagTVARIANT* v, unsigned int value, bool keep) { setScalar<TVT_UINT>(v, value, keep); }
void variant_set_long(tagTVARIANT* v, long value, bool keep) { setScalar<TVT_LONG>(v, value, keep); }
void variant_set_ulong(tagTVARIANT* v, unsigned long value, bool keep) { setScalar<TVT_ULONG>(v, value, keep); }
void variant_set_longlong(tagTVARIANT* v, long long value, bool keep) { setScalar<TVT_LONGLONG>(v, value, keep); }
void variant_set_ulonglong(tagTVARIANT* v, unsigned long long value, bool keep) {
    setScalar<TVT_ULONGLONG>(v, value, keep);
}
void variant_set_float(tagTVARIANT* v, float value, bool keep) { setScalar<TVT_FLOAT>(v, value, keep); }
void variant_set_double(tagTVARIANT* v, double value, bool keep) { setScalar<TVT_DOUBLE>(v, value, keep); }
void variant_set_bool(tagTVARIANT* v, bool value, bool keep) { setScalar<TVT_BOOL>(v, value, keep); }

KORVANE_BOOL_EXPORT(variant_equal_variant, (const tagTVARIANT* a, const tagTVARIANT* b)) {
    if (a == nullptr || b == nullptr)
        return a == b;
    if (a->vt != b->vt)
        return false;
    if (a->vt == TVT_EMPTY)
        return true;
    if (a->vt == TVT_STRING)
        return sameStringUnit(a->value.bstrVal, b->value.bstrVal);
    // Unknown tags are never equal.
    return korvane::dispatchScalar(a->vt, false, [a, b](auto tag) { return sameScalar<decltype(tag)::value>(a, b); });
}

KORVANE_BOOL_EXPORT(variant_get_datatype_size, (TVARTYPE type, uint32_t* bits)) {
    const uint32_t size = korvane::dispatchScalar(
        type, uint32_t{0}, [](auto tag) { return static_cast<uint32_t>(8 * sizeof(Scalar<decltype(tag)::value>)); });
    if (bits != nullptr)
        *bits = size;
    return size != 0;
}
