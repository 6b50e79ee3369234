// The one table of variant tags: for each of the thirteen scalar tags its C++
// type, and for every tag with a name its type-name text. Every per-type
// operation of the automation families (setters, conversion, safe-array
// storage, resolution, the reader and writer) dispatches through here
// instead of writing its own switch.
#ifndef KORVANE_SCALAR_TYPES_H
#define KORVANE_SCALAR_TYPES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "korvane/types.h"

namespace korvane {

template <TVARTYPE Tag>
struct ScalarOf; // defined for the thirteen scalar tags only

template <> struct ScalarOf<TVT_CHAR> { using type = char; };
template <> struct ScalarOf<TVT_BYTE> { using type = unsigned char; };
template <> struct ScalarOf<TVT_SHORT> { using type = short; };
template <> struct ScalarOf<TVT_USHORT> { using type = unsigned short; };
template <> struct ScalarOf<TVT_INT> { using type = int; };
template <> struct ScalarOf<TVT_UINT> { using type = unsigned int; };
template <> struct ScalarOf<TVT_LONG> { using type = long; };
template <> struct ScalarOf<TVT_ULONG> { using type = unsigned long; };
template <> struct ScalarOf<TVT_LONGLONG> { using type = long long; };
template <> struct ScalarOf<TVT_ULONGLONG> { using type = unsigned long long; };
template <> struct ScalarOf<TVT_FLOAT> { using type = float; };
template <> struct ScalarOf<TVT_DOUBLE> { using type = double; };
template <> struct ScalarOf<TVT_BOOL> { using type = bool; };

template <TVARTYPE Tag>
using Scalar = typename ScalarOf<Tag>::type;

// A tag as a compile-time constant, handed to dispatch callbacks.
template <TVARTYPE Tag>
using TagConstant = std::integral_constant<TVARTYPE, Tag>;

inline bool isScalarTag(TVARTYPE tag) {
    return tag >= TVT_CHAR && tag <= TVT_BOOL && tag != TVT_STRING;
}

// Calls f(TagConstant<tag>{}) for a scalar tag and returns its result;
// returns `otherwise` for TVT_EMPTY, TVT_STRING and unknown tags.
template <class R, class F>
R dispatchScalar(TVARTYPE tag, R otherwise, F&& f) {
    switch (tag) {
    case TVT_CHAR: return f(TagConstant<TVT_CHAR>{});
    case TVT_BYTE: return f(TagConstant<TVT_BYTE>{});
    case TVT_SHORT: return f(TagConstant<TVT_SHORT>{});
    case TVT_USHORT: return f(TagConstant<TVT_USHORT>{});
    case TVT_INT: return f(TagConstant<TVT_INT>{});
    case TVT_UINT: return f(TagConstant<TVT_UINT>{});
    case TVT_LONG: return f(TagConstant<TVT_LONG>{});
    case TVT_ULONG: return f(TagConstant<TVT_ULONG>{});
    case TVT_LONGLONG: return f(TagConstant<TVT_LONGLONG>{});
    case TVT_ULONGLONG: return f(TagConstant<TVT_ULONGLONG>{});
    case TVT_FLOAT: return f(TagConstant<TVT_FLOAT>{});
    case TVT_DOUBLE: return f(TagConstant<TVT_DOUBLE>{});
    case TVT_BOOL: return f(TagConstant<TVT_BOOL>{});
    default: return otherwise;
    }
}

// The value union read or written at a scalar's own width. Bytes above that
// width are neither read nor touched. memcpy keeps the reinterpretation of
// another member's bytes well defined.
template <class T>
T readScalar(const tagTVARIANT* v) {
    static_assert(std::is_arithmetic<T>::value, "scalars only");
    T value;
    std::memcpy(&value, &v->value, sizeof value);
    return value;
}

template <class T>
void writeScalar(tagTVARIANT* v, T value) {
    static_assert(std::is_arithmetic<T>::value, "scalars only");
    std::memcpy(&v->value, &value, sizeof value);
}

// The type the conversions read a tag's value as: its own type, except that a
// char counts as an unsigned byte on every platform (a char holding -1 widens
// to 255 and prints as "255"; kept on purpose for existing callers) and a bool
// is read as its raw byte (a record filled by hand may hold any byte there).
template <TVARTYPE Tag>
using NumericScalar = std::conditional_t<Tag == TVT_CHAR || Tag == TVT_BOOL, unsigned char, Scalar<Tag>>;

// The value bytes of a scalar as an unsigned integer of the same width, for
// comparing or storing a value at that width without reading it as its type.
template <std::size_t Width>
struct UnsignedOfWidth;
template <> struct UnsignedOfWidth<1> { using type = uint8_t; };
template <> struct UnsignedOfWidth<2> { using type = uint16_t; };
template <> struct UnsignedOfWidth<4> { using type = uint32_t; };
template <> struct UnsignedOfWidth<8> { using type = uint64_t; };

template <TVARTYPE Tag>
using ScalarBits = typename UnsignedOfWidth<sizeof(Scalar<Tag>)>::type;

// One row per tag, indexed by tag: its type-name text, and the printf format
// that turns its value (read as NumericScalar, floats widened to double) into
// text. Existing callers send, parse and print these texts exactly, so they
// stay as they are.
struct TagRow {
    const char* name;
    const char* format;
};
inline constexpr TagRow kTagRows[] = {
    {nullptr, nullptr},
    {"char", "%d"},
    {"unsigned char", "%u"},
    {"short", "%d"},
    {"unsigned short", "%u"},
    {"int", "%d"},
    {"unsigned int", "%u"},
    {"long", "%ld"},
    {"unsigned long", "%lu"},
    {"long long", "%lld"},
    {"unsigned long long", "%llu"},
    {"float", "%f"},
    {"double", "%f"},
    {"string", nullptr},
    {"bool", "%d"},
};
inline constexpr TVARTYPE kTagRowCount = sizeof kTagRows / sizeof kTagRows[0];

// The printf format of a scalar tag; null for TVT_EMPTY, TVT_STRING and
// unknown tags.
inline const char* printFormat(TVARTYPE tag) {
    return tag < kTagRowCount ? kTagRows[tag].format : nullptr;
}

// Type-name text of a tag ("char", "unsigned char", ... "string", "bool");
// null for TVT_EMPTY and unknown tags. Matching is exact and case-sensitive.
const char* typeName(TVARTYPE tag);
// The tag whose name is `name`, in tag order; TVT_EMPTY when none matches.
TVARTYPE tagOfName(const char* name);

} // namespace korvane

#endif
