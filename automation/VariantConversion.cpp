// Variant type conversion. One routine per source and target type is
// generated from a handful of value rules: integers are relabelled when they
// narrow and extended by the source's signedness when they widen, floats
// truncate toward zero with saturation, numbers become text as printf writes
// them and text becomes a number through the standard parsers.
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <type_traits>

#include "automation/AutomationInternal.h"
#include "automation/ScalarTypes.h"
#include "common/BoolExport.h"

namespace {

using korvane::NumericScalar;
using korvane::Scalar;

// Writes a result into the value union at the target's width. An integer
// result keeps its low-order bytes; the bytes above the width keep what they
// held.
template <TVARTYPE Target, class Value>
void store(tagTVARIANT* v, Value value) {
    using To = Scalar<Target>;
    if constexpr (std::is_floating_point<To>::value)
        korvane::writeScalar(v, static_cast<To>(value));
    else
        korvane::writeScalar(v, static_cast<korvane::ScalarBits<Target>>(value));
}

// A float or double converted toward zero into Integer. Out-of-range values
// saturate and NaN gives 0; a plain conversion of them would be undefined.
template <class Integer, class Floating>
Integer truncateSaturating(Floating value) {
    using Limits = std::numeric_limits<Integer>;
    if (std::isnan(value))
        return 0;
    if (value <= static_cast<Floating>(Limits::min()))
        return Limits::min();
    if (value >= static_cast<Floating>(Limits::max()))
        return Limits::max();
    return static_cast<Integer>(value);
}

// The integer a float truncates into before it is stored: 64-bit targets
// their own type; the narrower ones a 32-bit result whose low-order bytes are
// kept, signed for short and int, unsigned for char, byte, ushort and uint
// (so -1.0 to char gives 0 and 300.0 gives 44).
template <TVARTYPE Target>
using TruncationOf = std::conditional_t<
    sizeof(Scalar<Target>) == 8, Scalar<Target>,
    std::conditional_t<(std::is_signed<Scalar<Target>>::value && sizeof(Scalar<Target>) > 1), int32_t, uint32_t>>;

// One scalar type to another (both of the thirteen, never the same).
template <TVARTYPE Source, TVARTYPE Target>
bool convertScalar(tagTVARIANT* v) {
    using From = NumericScalar<Source>;
    using To = Scalar<Target>;
    const From value = korvane::readScalar<From>(v);
    if constexpr (Target == TVT_BOOL) {
        // long long and unsigned long long refuse bool while long and
        // unsigned long allow it; kept on purpose for existing callers.
        if constexpr (Source == TVT_LONGLONG || Source == TVT_ULONGLONG)
            return false;
        else
            store<Target>(v, value != 0);
    } else if constexpr (std::is_floating_point<From>::value && !std::is_floating_point<To>::value) {
        store<Target>(v, truncateSaturating<TruncationOf<Target>>(value));
    } else if constexpr (std::is_floating_point<From>::value || std::is_floating_point<To>::value ||
                         sizeof(To) > sizeof(From)) {
        // Float to float, integer to float (round to nearest), or an integer
        // widened by the signedness of its source.
        store<Target>(v, value);
    }
    // Otherwise an integer of no greater width: only the tag changes and the
    // new type reads the low-order bytes of the old value.
    v->vt = Target;
    return true;
}

// Room for any number as text. "%f" of the largest double needs a sign, 309
// integer digits, the point and six decimals, so no value is ever cut short.
constexpr size_t kTextCapacity = 1 + (std::numeric_limits<double>::max_exponent10 + 1) + 1 + 6 + 1;

// The value as printf receives it: integers promoted, floats as double.
template <class T>
auto printArgument(T value) {
    if constexpr (std::is_floating_point<T>::value)
        return static_cast<double>(value);
    else
        return +value;
}

// Integers go through to_chars, which writes the same bytes as their printf
// formats (plain decimal, a '-' only for a negative signed value) several
// times faster; floats stay on printf, whose "%f" follows the locale.
template <TVARTYPE Source>
void formatAsText(tagTVARIANT* v) {
    const auto value = printArgument(korvane::readScalar<NumericScalar<Source>>(v));
    if constexpr (std::is_integral<decltype(value)>::value) {
        char text[std::numeric_limits<decltype(value)>::digits10 + 3];
        *std::to_chars(text, text + sizeof text - 1, value).ptr = '\0';
        v->value.bstrVal = korvane::unitFromString(text);
    } else {
        char text[kTextCapacity] = {};
        std::snprintf(text, sizeof text, korvane::printFormat(Source), value);
        v->value.bstrVal = korvane::unitFromString(text);
    }
    v->vt = TVT_STRING;
}

template <TVARTYPE Source>
bool convertFromScalar(tagTVARIANT* v, TVARTYPE target) {
    if (target == TVT_STRING) {
        formatAsText<Source>(v);
        return true;
    }
    return korvane::dispatchScalar(target, false,
                                   [v](auto tag) { return convertScalar<Source, decltype(tag)::value>(v); });
}

// Base 0 throughout: "0x" means hexadecimal and a leading 0 octal. char
// parses signed like short and int on every platform. Text becomes bool
// through strtol, so "true" is false and "2" is true; kept on purpose for
// existing callers.
template <TVARTYPE Target>
auto parse(const char* text) {
    using T = Scalar<Target>;
    if constexpr (std::is_floating_point<T>::value)
        return std::strtod(text, nullptr);
    else if constexpr (Target == TVT_BOOL)
        return std::strtol(text, nullptr, 0) != 0;
    else if constexpr (Target == TVT_LONGLONG)
        return std::strtoll(text, nullptr, 0);
    else if constexpr (Target == TVT_ULONGLONG)
        return std::strtoull(text, nullptr, 0);
    else if constexpr (Target == TVT_CHAR || std::is_signed<T>::value)
        return std::strtol(text, nullptr, 0);
    else
        return std::strtoul(text, nullptr, 0);
}

// The string is consumed: the number is stored over the unit pointer and the
// unit is freed. Its text is read up to the first NUL; no unit, or no number
// in the text, gives 0.
template <TVARTYPE Target>
bool convertFromString(tagTVARIANT* v) {
    const std::string text = korvane::unitText(v->value.bstrVal);
    const korvane::UniqueUnit unit(v->value.bstrVal);
    store<Target>(v, parse<Target>(text.c_str()));
    v->vt = Target;
    return true;
}

} // namespace

KORVANE_BOOL_EXPORT(variant_change_type, (tagTVARIANT* v, TVARTYPE target)) {
    if (v == nullptr)
        return false;
    if (v->vt == target)
        return true;
    // Empty and unknown variants take any tag, an unknown one included, and
    // keep their value bits: an empty variant made a string holds no unit.
    if (v->vt == TVT_EMPTY || v->vt > TVT_BOOL) {
        v->vt = target;
        return true;
    }
    // From a typed variant, TVT_EMPTY and unknown targets are refused with v
    // untouched (the dispatch finds no scalar for them).
    if (v->vt == TVT_STRING)
        return korvane::dispatchScalar(target, false,
                                       [v](auto tag) { return convertFromString<decltype(tag)::value>(v); });
    return korvane::dispatchScalar(v->vt, false,
                                   [v, target](auto tag) { return convertFromScalar<decltype(tag)::value>(v, target); });
}
