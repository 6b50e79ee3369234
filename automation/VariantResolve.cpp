// Value resolution and type names: a variant read as any scalar whatever its
// tag, an integer value cut to a bit width, and tags looked up by their
// type-name texts (ScalarTypes.h holds the texts).
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "automation/ScalarTypes.h"
#include "automation/VariantInterfaces.h"
#include "common/BoolExport.h"
#include "common/CallerBuffer.h"
#include "korvane/automation.h"

namespace korvane {

const char* typeName(TVARTYPE tag) {
    return tag < kTagRowCount ? kTagRows[tag].name : nullptr;
}

TVARTYPE tagOfName(const char* name) {
    if (name == nullptr)
        return TVT_EMPTY;
    for (TVARTYPE tag = TVT_CHAR; tag < kTagRowCount; ++tag) {
        if (std::strcmp(name, kTagRows[tag].name) == 0)
            return tag;
    }
    return TVT_EMPTY;
}

} // namespace korvane

namespace {

using korvane::Scalar;

// What a resolution hands back for a tag: the scalar itself, except that a
// bool travels as its raw byte (see korvane_resolve_bool_byte).
template <TVARTYPE Tag>
using Resolved = std::conditional_t<Tag == TVT_BOOL, unsigned char, Scalar<Tag>>;

// The variant's value as the scalar of `Tag`: read directly when the tags
// match, otherwise from a converted private copy, so v itself never changes.
template <TVARTYPE Tag>
Resolved<Tag> resolveAs(const tagTVARIANT* v) {
    if (v == nullptr)
        return Resolved<Tag>{};
    if (v->vt == Tag)
        return korvane::readScalar<Resolved<Tag>>(v);
    korvane::ScopedVariant copy;
    variant_set_variant(copy.get(), v);
    // The conversion's result is deliberately not checked, for existing
    // callers: where it is refused (long long to bool) the copy keeps its
    // type and the low-order bytes of its value come back as they are.
    variant_change_type(copy.get(), Tag);
    return korvane::readScalar<Resolved<Tag>>(copy.get());
}

// How variant_ajust_data_value treats each tag.
enum class Narrowing {
    Refused,     // not an integer tag: false, nothing changed
    Unmasked,    // byte and unsigned short: left as they are, by design
    KeepLowBits, // unsigned 32- and 64-bit: the low `bits` bits are kept
    SignFill,    // signed types: bit (bits - 1) copied into every higher bit
};

constexpr Narrowing narrowingOf(TVARTYPE tag) {
    switch (tag) {
    case TVT_UINT:
    case TVT_ULONG:
    case TVT_ULONGLONG: return Narrowing::KeepLowBits;
    case TVT_BYTE:
    case TVT_USHORT: return Narrowing::Unmasked;
    case TVT_CHAR:
    case TVT_SHORT:
    case TVT_INT:
    case TVT_LONG:
    case TVT_LONGLONG: return Narrowing::SignFill;
    default: return Narrowing::Refused;
    }
}

// A left and a logical right shift by (width - bits) at the type's width.
// The shift amount is taken modulo the width, so bits 0 keeps the value and
// bits above the width keep (bits mod width) bits, as the shift pair does on
// the target.
template <class Unsigned>
Unsigned keepLowBits(Unsigned value, uint32_t bits) {
    constexpr uint32_t width = sizeof(Unsigned) * 8;
    const uint32_t shift = (width - bits) % width;
    return static_cast<Unsigned>(static_cast<Unsigned>(value << shift) >> shift);
}

// Sets bits `bits` to 63 when bit (bits - 1) is set; a clear sign bit leaves
// the upper bits as they are. Bits 0 and bits above 64 name no bit of the
// value, and leave it unchanged.
uint64_t signFill(uint64_t value, uint32_t bits) {
    if (bits == 0 || bits >= 64)
        return value;
    if (((value >> (bits - 1)) & 1) != 0)
        value |= ~uint64_t{0} << bits;
    return value;
}

template <TVARTYPE Tag>
void narrow(tagTVARIANT* v, uint32_t bits) {
    using T = Scalar<Tag>;
    constexpr Narrowing rule = narrowingOf(Tag);
    if constexpr (rule == Narrowing::KeepLowBits) {
        korvane::writeScalar(v, keepLowBits(korvane::readScalar<T>(v), bits));
    } else if constexpr (rule == Narrowing::SignFill) {
        // A char is taken as an unsigned byte, like everywhere else in the
        // conversions; the wider signed types are sign-extended.
        using Read = std::conditional_t<Tag == TVT_CHAR, unsigned char, T>;
        using Bits = std::make_unsigned_t<T>;
        const auto wide = static_cast<uint64_t>(static_cast<int64_t>(korvane::readScalar<Read>(v)));
        korvane::writeScalar(v, static_cast<Bits>(signFill(wide, bits)));
    }
    // Unmasked: byte and unsigned short keep their value for every bit count;
    // existing callers rely on these two types not being masked.
}

} // namespace

char variant_resolve_as_char(const tagTVARIANT* v) { return resolveAs<TVT_CHAR>(v); }
unsigned char variant_resolve_as_byte(const tagTVARIANT* v) { return resolveAs<TVT_BYTE>(v); }
short variant_resolve_as_short(const tagTVARIANT* v) { return resolveAs<TVT_SHORT>(v); }
unsigned short variant_resolve_as_ushort(const tagTVARIANT* v) { return resolveAs<TVT_USHORT>(v); }
int variant_resolve_as_int(const tagTVARIANT* v) { return resolveAs<TVT_INT>(v); }
unsigned int variant_resolve_as_uint(const tagTVARIANT* v) { return resolveAs<TVT_UINT>(v); }
long variant_resolve_as_long(const tagTVARIANT* v) { return resolveAs<TVT_LONG>(v); }
unsigned long variant_resolve_as_ulong(const tagTVARIANT* v) { return resolveAs<TVT_ULONG>(v); }
long long variant_resolve_as_longlong(const tagTVARIANT* v) { return resolveAs<TVT_LONGLONG>(v); }
unsigned long long variant_resolve_as_ulonglong(const tagTVARIANT* v) { return resolveAs<TVT_ULONGLONG>(v); }
float variant_resolve_as_float(const tagTVARIANT* v) { return resolveAs<TVT_FLOAT>(v); }
double variant_resolve_as_double(const tagTVARIANT* v) { return resolveAs<TVT_DOUBLE>(v); }

// A long long variant resolves to bool as the low byte of its value,
// unnormalised (2 stays 2), which a C++ bool cannot hold without undefined
// behaviour; so the library carries it as a byte throughout, up to the
// exported function's result register.
unsigned char korvane_resolve_bool_byte(const tagTVARIANT* v) {
    return resolveAs<TVT_BOOL>(v);
}

// The raw byte, zero-extended: existing callers see a refused long long 2 as 2.
KORVANE_BOOL_EXPORT(variant_resolve_as_bool, (const tagTVARIANT* v)) {
    return korvane::BoolResult::rawByte(korvane_resolve_bool_byte(v));
}

KORVANE_BOOL_EXPORT(variant_ajust_data_value, (tagTVARIANT* v, uint32_t bits)) {
    if (v == nullptr || narrowingOf(v->vt) == Narrowing::Refused)
        return false;
    return korvane::dispatchScalar(v->vt, false, [&](auto tag) {
        narrow<decltype(tag)::value>(v, bits);
        return true;
    });
}

KORVANE_BOOL_EXPORT(variant_resolve_display_type, (TVARTYPE type, char* buffer, size_t* length)) {
    const char* name = korvane::typeName(type);
    if (name == nullptr || length == nullptr)
        return false;
    return korvane::copyToCallerBuffer(name, std::strlen(name), buffer, *length);
}

KORVANE_BOOL_EXPORT(variant_resolve_type, (const char* name, TVARTYPE* type)) {
    if (name == nullptr || type == nullptr)
        return false;
    *type = korvane::tagOfName(name);
    return *type != TVT_EMPTY;
}
