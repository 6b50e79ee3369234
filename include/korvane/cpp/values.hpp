/// @file
/// Value types over the automation data: BStr, Variant and SafeArray<T>.
#ifndef KORVANE_CPP_VALUES_HPP
#define KORVANE_CPP_VALUES_HPP

#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "korvane/automation.h"
#include "korvane/interfaces.h"
#include "korvane/cpp/owner.hpp"

namespace korvane {
namespace detail {

/// A unit released by bstrunit_free.
using Unit = std::unique_ptr<bstrunit, decltype(&bstrunit_free)>;

/// A unit holding `text` and a NUL, as the library builds one from a C
/// string, but keeping NULs inside the text.
inline Unit make_unit(std::string_view text) {
    Unit unit(bstrunit_alloc(static_cast<int32_t>(text.size() + 1)), &bstrunit_free);
    std::memcpy(bstrunit_data(unit.get()), text.data(), text.size());
    bstrunit_data(unit.get())[text.size()] = '\0';
    return unit;
}

/// The text of a unit's data bytes: all of them but a final NUL.
inline std::string_view unit_text(const char* data, int32_t length) {
    if (data == nullptr || length <= 0)
        return {};
    return std::string_view(data, static_cast<size_t>(length - (data[length - 1] == '\0' ? 1 : 0)));
}

/// The table of the scalar types: each C++ type with its tag, its setter and
/// its resolver.
template <class T, TVARTYPE Tag, void (*Set)(tagTVARIANT*, T, bool), T (*Resolve)(const tagTVARIANT*)>
struct ScalarEntry {
    static constexpr TVARTYPE tag = Tag;                       ///< The variant tag of T.
    static void set(tagTVARIANT* v, T value) { Set(v, value, true); } ///< Stores a T.
    static T resolve(const tagTVARIANT* v) { return Resolve(v); }     ///< Reads as a T.
    /// The value of a variant tagged `tag`.
    static T read(const tagTVARIANT& v) {
        T value;
        std::memcpy(&value, &v.value, sizeof value); // scalars sit in the low-order bytes
        return value;
    }
};
template <class T>
struct Scalar; ///< Specialised for the thirteen scalar types only.
// clang-format off
template <> struct Scalar<char> : ScalarEntry<char, TVT_CHAR, variant_set_char, variant_resolve_as_char> {};
template <> struct Scalar<unsigned char> : ScalarEntry<unsigned char, TVT_BYTE, variant_set_byte, variant_resolve_as_byte> {};
template <> struct Scalar<short> : ScalarEntry<short, TVT_SHORT, variant_set_short, variant_resolve_as_short> {};
template <> struct Scalar<unsigned short> : ScalarEntry<unsigned short, TVT_USHORT, variant_set_ushort, variant_resolve_as_ushort> {};
template <> struct Scalar<int> : ScalarEntry<int, TVT_INT, variant_set_int, variant_resolve_as_int> {};
template <> struct Scalar<unsigned int> : ScalarEntry<unsigned int, TVT_UINT, variant_set_uint, variant_resolve_as_uint> {};
template <> struct Scalar<long> : ScalarEntry<long, TVT_LONG, variant_set_long, variant_resolve_as_long> {};
template <> struct Scalar<unsigned long> : ScalarEntry<unsigned long, TVT_ULONG, variant_set_ulong, variant_resolve_as_ulong> {};
template <> struct Scalar<long long> : ScalarEntry<long long, TVT_LONGLONG, variant_set_longlong, variant_resolve_as_longlong> {};
template <> struct Scalar<unsigned long long> : ScalarEntry<unsigned long long, TVT_ULONGLONG, variant_set_ulonglong, variant_resolve_as_ulonglong> {};
template <> struct Scalar<float> : ScalarEntry<float, TVT_FLOAT, variant_set_float, variant_resolve_as_float> {};
template <> struct Scalar<double> : ScalarEntry<double, TVT_DOUBLE, variant_set_double, variant_resolve_as_double> {};
template <> struct Scalar<bool> : ScalarEntry<bool, TVT_BOOL, variant_set_bool, variant_resolve_as_bool> {};
// clang-format on

/// True for the thirteen scalar types.
template <class T, class = void>
constexpr bool is_scalar = false;
template <class T>
constexpr bool is_scalar<T, std::void_t<decltype(Scalar<T>::tag)>> = true; ///< A table entry exists.

} // namespace detail

/// A BSTR string. It holds no string, or a unit whose text may contain NULs.
class BStr : public Owner<bstr_handle, bstr_destroy> {
public:
    /// Holds no string.
    BStr() : Owner(bstr_create()) {}
    /// Holds a copy of `text` (the unit stores a final NUL, as from a C string).
    explicit BStr(std::string_view text) : BStr() { assign(text); }
    /// Replaces the string with a copy of `text`.
    BStr& operator=(std::string_view text) {
        assign(text);
        return *this;
    }
    /// True when it holds a string (possibly empty).
    bool has_value() const noexcept { return bstr_get_string(native_handle()) != nullptr; }
    /// The text, without the unit's final NUL; empty when there is no string.
    std::string_view view() const noexcept {
        const char* data = bstr_get_string(native_handle());
        if (data == nullptr)
            return {};
        return detail::unit_text(data, reinterpret_cast<const bstrunit*>(data - sizeof(bstrunit))->length);
    }
    /// The same as view().
    operator std::string_view() const noexcept { return view(); }

private:
    void assign(std::string_view text) { bstr_set_bstrunit(native_handle(), detail::make_unit(text).get()); }
};

/// A variant as a value type: it owns its string and copies deeply.
class Variant {
public:
    /// Empty (TVT_EMPTY).
    Variant() noexcept { variant_init(&m_value); }
    /// Holds `value` with its own tag (int gives TVT_INT, char TVT_CHAR, ...).
    template <class T, std::enable_if_t<detail::is_scalar<T>, int> = 0>
    Variant(T value) noexcept : Variant() {
        detail::Scalar<T>::set(&m_value, value);
    }
    /// A string variant holding a copy of `text`.
    Variant(std::string_view text) : Variant() {
        variant_set_bstrunit(&m_value, detail::make_unit(text).get());
    }
    /// A string variant (a C string would otherwise pick the bool
    /// constructor); empty for a null `text`, as variant_set_string leaves it.
    Variant(const char* text) : Variant() {
        if (text != nullptr)
            variant_set_bstrunit(&m_value, detail::make_unit(text).get());
    }
    /// A deep copy.
    Variant(const Variant& other) : Variant() { variant_set_variant(&m_value, &other.m_value); }
    /// Takes the other's value (and its string), leaving it empty.
    Variant(Variant&& other) noexcept : m_value(other.m_value) { variant_init(&other.m_value); }
    /// A deep copy of `other`.
    Variant& operator=(const Variant& other) {
        if (this != &other)
            variant_set_variant(&m_value, &other.m_value);
        return *this;
    }
    /// Takes the other's value, leaving it empty.
    Variant& operator=(Variant&& other) noexcept {
        if (this != &other) {
            variant_clear(&m_value);
            m_value = other.m_value;
            variant_init(&other.m_value);
        }
        return *this;
    }
    /// Frees an owned string.
    ~Variant() { variant_clear(&m_value); }

    /// The tag.
    TVARTYPE type() const noexcept { return m_value.vt; }
    /// The value read as T, converting a copy when the tag differs; what
    /// variant_resolve_as_* gives (0 for a refused conversion).
    template <class T>
    T get() const noexcept {
        return detail::Scalar<T>::resolve(&m_value);
    }
    /// The value converted to T as variant_change_type converts it; empty
    /// when that conversion is refused. T may also be std::string.
    template <class T>
    std::optional<T> try_get() const {
        Variant copy(*this);
        if (!variant_change_type(&copy.m_value, tag_of<T>()))
            return std::nullopt;
        if constexpr (std::is_same_v<T, std::string>)
            return std::string(copy.text());
        else
            return detail::Scalar<T>::read(copy.m_value);
    }
    /// The value as text ("" when it cannot be converted to a string).
    std::string to_string() const { return try_get<std::string>().value_or(std::string()); }

    /// The record, for the flat functions.
    tagTVARIANT* native_handle() noexcept { return &m_value; }
    /// The record, for the flat functions.
    const tagTVARIANT* native_handle() const noexcept { return &m_value; }

private:
    template <class T>
    static constexpr TVARTYPE tag_of() {
        if constexpr (std::is_same_v<T, std::string>)
            return TVT_STRING;
        else
            return detail::Scalar<T>::tag;
    }
    std::string_view text() const noexcept {
        const bstrunit* unit = m_value.value.bstrVal;
        return unit == nullptr ? std::string_view() : detail::unit_text(bstrunit_data(unit), unit->length);
    }

    tagTVARIANT m_value;
};

/// A safe array of one scalar type T, with checked access and iteration by
/// value.
template <class T>
class SafeArray : public Owner<safearray_handle, safearray_destroy> {
    static_assert(detail::is_scalar<T>, "SafeArray holds one of the thirteen scalar types");

public:
    /// `count` zeroed elements.
    explicit SafeArray(uint32_t count = 0) : Owner(safearray_create(detail::Scalar<T>::tag, count)) {}
    /// The element count.
    uint32_t size() const noexcept { return safearray_get_element_count(native_handle()); }
    /// Element `index`; std::out_of_range past the end.
    T at(uint32_t index) const {
        T value{};
        if (!safearray_get_element(native_handle(), index, &value))
            throw std::out_of_range("korvane::SafeArray::at");
        return value;
    }
    /// Stores `value` at `index`; false past the end.
    bool set(uint32_t index, T value) noexcept { return safearray_set_element(native_handle(), index, &value); }
    /// Grows (zero-filled) or shrinks to `count` elements.
    bool resize(uint32_t count) noexcept { return safearray_resize(native_handle(), count); }

    /// Reads the elements one by one, by value.
    class const_iterator {
    public:
        using iterator_category = std::input_iterator_tag; ///< Elements are read, not referenced.
        using value_type = T;                               ///< The element type.
        using difference_type = std::ptrdiff_t;             ///< Distance between positions.
        using pointer = void;                               ///< No element address is handed out.
        using reference = T;                                ///< Elements come by value.

        /// Position `index` of `array`.
        const_iterator(const SafeArray* array, uint32_t index) : m_array(array), m_index(index) {}
        /// The element here.
        T operator*() const { return m_array->at(m_index); }
        /// Moves to the next element.
        const_iterator& operator++() {
            ++m_index;
            return *this;
        }
        /// True at the same position.
        bool operator==(const const_iterator& other) const { return m_index == other.m_index; }
        /// False at the same position.
        bool operator!=(const const_iterator& other) const { return m_index != other.m_index; }

    private:
        const SafeArray* m_array;
        uint32_t m_index;
    };
    /// The first element.
    const_iterator begin() const { return const_iterator(this, 0); }
    /// Past the last element.
    const_iterator end() const { return const_iterator(this, size()); }
};

/// Holds one reference on a reference-counted interface (IVariantRead,
/// IVariantWrite) and gives it back with releaseRef when it goes.
template <class Interface>
class Ref {
public:
    /// Takes over one reference on `object` (may be null).
    explicit Ref(Interface* object = nullptr) noexcept : m_object(object) {}
    /// Takes the other's reference.
    Ref(Ref&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    /// Gives back the reference held, then takes the other's.
    Ref& operator=(Ref&& other) noexcept {
        if (this != &other) {
            if (m_object != nullptr)
                m_object->releaseRef();
            m_object = std::exchange(other.m_object, nullptr);
        }
        return *this;
    }
    /// Gives back the reference.
    ~Ref() {
        if (m_object != nullptr)
            m_object->releaseRef();
    }
    /// The interface.
    Interface* operator->() const noexcept { return m_object; }
    /// The interface, for the flat functions.
    Interface* get() const noexcept { return m_object; }
    /// True while a reference is held.
    explicit operator bool() const noexcept { return m_object != nullptr; }

private:
    Interface* m_object;
};

/// A variant wrapper: a variant bound to a reader and a writer, handed out
/// according to the mode.
class VariantWrapper : public Owner<variant_wrapper_handle, variant_wrapper_destroy> {
public:
    /// Readable, not writable, unbound.
    VariantWrapper() : Owner(variant_wrapper_create()) {}
    /// Sets whether the reader and the writer are handed out.
    void set_mode(bool readable, bool writable) noexcept {
        variant_wrapper_set_mode(native_handle(), readable, writable);
    }
    /// Binds a copy of `value` that the wrapper owns.
    void bind_copy(const Variant& value) {
        variant_wrapper_set_wrapper_value(native_handle(), const_cast<tagTVARIANT*>(value.native_handle()), true);
    }
    /// Binds `value` itself, which must outlive the binding.
    void bind(Variant& value) noexcept {
        variant_wrapper_set_wrapper_value(native_handle(), value.native_handle(), false);
    }
    /// The bound variant's type name ("" for an empty one); empty when unbound.
    std::optional<std::string> type() const {
        return detail::buffer_text<unsigned long>([&](char* buffer, unsigned long* length) {
            return variant_wrapper_get_type(native_handle(), buffer, length);
        });
    }
    /// Converts the bound variant to the named type; false only when unbound.
    bool set_type(const std::string& name) noexcept { return variant_wrapper_set_type(native_handle(), name.c_str()); }
    /// The reader, or an empty Ref when the wrapper is not readable.
    Ref<IVariantRead> reader() const noexcept {
        return Ref<IVariantRead>(variant_wrapper_get_variantread(native_handle()));
    }
    /// The writer, or an empty Ref when the wrapper is not writable.
    Ref<IVariantWrite> writer() const noexcept {
        return Ref<IVariantWrite>(variant_wrapper_get_variantwrite(native_handle()));
    }
    /// A wrapper with the same mode that owns a copy of the bound value.
    VariantWrapper clone() const { return VariantWrapper(variant_wrapper_clone(native_handle())); }

private:
    explicit VariantWrapper(variant_wrapper_handle* handle) noexcept : Owner(handle) {}
};

} // namespace korvane

#endif
