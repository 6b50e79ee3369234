// The variant reader and writer, and the filling of a variant from any
// reader, the application's own included.
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "automation/ScalarTypes.h"
#include "automation/VariantInterfaces.h"
#include "common/CallerBuffer.h"

static_assert(std::is_same<unsigned long, size_t>::value,
              "the interfaces' text lengths are the caller-buffer sizes");

namespace {

// The variant's value as text: a string's own text, any scalar formatted
// through a converted private copy ("%d", "%u", "%ld", ..., "%f"). An empty
// variant has no value and gives the empty text; so does an unknown tag,
// whose value bits cannot be trusted to be a unit.
std::string valueText(const tagTVARIANT* v) {
    if (v->vt == TVT_STRING)
        return korvane::unitText(v->value.bstrVal);
    if (!korvane::isScalarTag(v->vt))
        return std::string();
    korvane::ScopedVariant copy;
    variant_set_variant(copy.get(), v);
    if (!variant_change_type(copy.get(), TVT_STRING))
        return std::string();
    return korvane::unitText(copy.get()->value.bstrVal);
}

bool giveText(const std::string& text, char* buffer, unsigned long& length) {
    return korvane::copyToCallerBuffer(text.c_str(), text.size(), buffer, length);
}

// Text from one of a reader's caller-buffer getters: the size first, then
// the text into a buffer of that size. The second answer is not checked, as
// the reader may be the application's; a reader that writes no NUL is cut at
// the end of the buffer. False when the reader offers no text.
template <class Getter>
bool askForText(Getter get, std::string& text) {
    unsigned long length = 0;
    if (!get(nullptr, length) || length == 0)
        return false;
    std::vector<char> buffer(length, '\0');
    get(buffer.data(), length);
    text.assign(buffer.data(), strnlen(buffer.data(), buffer.size()));
    return true;
}

} // namespace

CVariantRead::~CVariantRead() {}

template <class T>
bool CVariantRead::resolveInto(T& out, T (*resolve)(const tagTVARIANT*)) {
    if (m_value == nullptr)
        return false;
    out = resolve(m_value);
    return true;
}

bool CVariantRead::getType(char* buffer, unsigned long& length) {
    if (m_value == nullptr)
        return false;
    // An empty or unknown tag has no name: the empty text, not a failure.
    const char* name = korvane::typeName(m_value->vt);
    return giveText(name == nullptr ? std::string() : std::string(name), buffer, length);
}

bool CVariantRead::getValue(unsigned char& value) { return resolveInto(value, variant_resolve_as_byte); }
bool CVariantRead::getValue(char& value) { return resolveInto(value, variant_resolve_as_char); }
bool CVariantRead::getValue(unsigned short& value) { return resolveInto(value, variant_resolve_as_ushort); }
bool CVariantRead::getValue(short& value) { return resolveInto(value, variant_resolve_as_short); }
bool CVariantRead::getValue(unsigned int& value) { return resolveInto(value, variant_resolve_as_uint); }
bool CVariantRead::getValue(int& value) { return resolveInto(value, variant_resolve_as_int); }
bool CVariantRead::getValue(unsigned long& value) { return resolveInto(value, variant_resolve_as_ulong); }
bool CVariantRead::getValue(long& value) { return resolveInto(value, variant_resolve_as_long); }
bool CVariantRead::getValue(unsigned long long& value) { return resolveInto(value, variant_resolve_as_ulonglong); }
bool CVariantRead::getValue(long long& value) { return resolveInto(value, variant_resolve_as_longlong); }
bool CVariantRead::getValue(float& value) { return resolveInto(value, variant_resolve_as_float); }
bool CVariantRead::getValue(double& value) { return resolveInto(value, variant_resolve_as_double); }

bool CVariantRead::getValue(char* buffer, unsigned long& length) {
    if (m_value == nullptr)
        return false;
    return giveText(valueText(m_value), buffer, length);
}

bool CVariantRead::getValue(bool& value) {
    if (m_value == nullptr)
        return false;
    // Copied as the raw byte, never loaded as a bool.
    const unsigned char byte = korvane_resolve_bool_byte(m_value);
    std::memcpy(&value, &byte, sizeof byte);
    return true;
}

CVariantWrite::~CVariantWrite() {}

template <class T>
bool CVariantWrite::storeWith(void (*set)(tagTVARIANT*, T, bool), T value, bool keep) {
    if (m_value == nullptr)
        return false;
    set(m_value, value, keep);
    return true;
}

bool CVariantWrite::setType(const char* name) {
    if (m_value == nullptr)
        return false;
    TVARTYPE tag = TVT_EMPTY;
    variant_resolve_type(name, &tag);
    // The conversion's answer is not passed on: a refused conversion, an
    // unknown name included, still reports true. Existing callers rely on it.
    variant_change_type(m_value, tag);
    return true;
}

bool CVariantWrite::setValue(unsigned char value, bool keep) { return storeWith(variant_set_byte, value, keep); }
bool CVariantWrite::setValue(char value, bool keep) { return storeWith(variant_set_char, value, keep); }
bool CVariantWrite::setValue(unsigned short value, bool keep) { return storeWith(variant_set_ushort, value, keep); }
bool CVariantWrite::setValue(short value, bool keep) { return storeWith(variant_set_short, value, keep); }
bool CVariantWrite::setValue(unsigned int value, bool keep) { return storeWith(variant_set_uint, value, keep); }
bool CVariantWrite::setValue(int value, bool keep) { return storeWith(variant_set_int, value, keep); }
bool CVariantWrite::setValue(unsigned long value, bool keep) { return storeWith(variant_set_ulong, value, keep); }
bool CVariantWrite::setValue(long value, bool keep) { return storeWith(variant_set_long, value, keep); }
bool CVariantWrite::setValue(unsigned long long value, bool keep) {
    return storeWith(variant_set_ulonglong, value, keep);
}
bool CVariantWrite::setValue(long long value, bool keep) { return storeWith(variant_set_longlong, value, keep); }
bool CVariantWrite::setValue(float value, bool keep) { return storeWith(variant_set_float, value, keep); }
bool CVariantWrite::setValue(double value, bool keep) { return storeWith(variant_set_double, value, keep); }
bool CVariantWrite::setValue(const char* value, bool keep) { return storeWith(variant_set_string, value, keep); }
bool CVariantWrite::setValue(bool value, bool keep) { return storeWith(variant_set_bool, value, keep); }

void variant_set_variantread(tagTVARIANT* v, IVariantRead* reader) {
    if (v == nullptr)
        return;
    variant_clear(v);
    if (reader == nullptr)
        return;

    std::string name;
    askForText([reader](char* buffer, unsigned long& length) { return reader->getType(buffer, length); }, name);
    TVARTYPE tag = TVT_EMPTY;
    variant_resolve_type(name.c_str(), &tag); // a name that does not resolve gives tag 0

    if (tag == TVT_STRING) {
        // A string reader that offers no text leaves v empty.
        std::string text;
        if (askForText([reader](char* buffer, unsigned long& length) { return reader->getValue(buffer, length); },
                       text))
            variant_set_string(v, text.c_str(), true);
        return;
    }
    // A scalar: the tag goes in first, then the reader's getter of that type
    // writes the value straight into v's value field. Its answer is not
    // checked. Tag 0 calls no getter and leaves v empty.
    korvane::dispatchScalar(tag, false, [v, reader](auto type) {
        using T = korvane::Scalar<decltype(type)::value>;
        v->vt = decltype(type)::value;
        reader->getValue(*reinterpret_cast<T*>(&v->value));
        return true;
    });
}
