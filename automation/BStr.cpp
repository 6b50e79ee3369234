// BSTR strings: a handle owning one length-prefixed buffer (bstrunit).
#include <climits>
#include <cstring>
#include <new>
#include <utility>

#include "automation/AutomationInternal.h"
#include "common/BoolExport.h"
#include "common/HandleFrame.h"

namespace korvane {

bstrunit* makeUnit(int32_t length, const void* bytes) {
    bstrunit* unit = bstrunit_alloc(length);
    if (length >= 1)
        std::memcpy(bstrunit_data(unit), bytes, static_cast<size_t>(length));
    return unit;
}

bstrunit* copyUnit(const bstrunit* unit) {
    return unit == nullptr ? nullptr : makeUnit(unit->length, bstrunit_data(unit));
}

bstrunit* unitFromString(const char* text) {
    const size_t length = std::strlen(text) + 1;
    // The length field is 32-bit: a longer text cannot be held, and is
    // refused the way any impossible allocation is.
    if (length > INT32_MAX)
        throw std::bad_array_new_length();
    return makeUnit(static_cast<int32_t>(length), text);
}

std::string unitText(const bstrunit* unit) {
    if (unit == nullptr || unit->length <= 0)
        return std::string();
    const char* data = bstrunit_data(unit);
    return std::string(data, strnlen(data, static_cast<size_t>(unit->length)));
}

} // namespace korvane

bstr_handle::~bstr_handle() {
    bstrunit_free(unit);
}

namespace {

// The three setters share one shape: a null handle reports whether there was
// nothing to set; otherwise the handle is cleared *before* the source is read
// (so setting a handle from itself empties it, which callers rely on) and
// then takes a copy of the source, null meaning no string. The old unit is
// freed only once the copy is made: a source that lies inside it (the
// handle's own text or unit) must still be readable.
template <class Source, class Copy>
bool setFrom(bstr_handle* handle, Source source, Copy copy) {
    if (handle == nullptr)
        return source == nullptr;
    const korvane::UniqueUnit previous(std::exchange(handle->unit, nullptr));
    handle->unit = copy(source);
    return true;
}

} // namespace

bstr_handle* bstr_create(void) {
    return new bstr_handle;
}

void bstr_destroy(bstr_handle** handle) {
    korvane::destroyHandle(handle);
}

void bstr_clear(bstr_handle* handle) {
    if (handle == nullptr)
        return;
    bstrunit_free(handle->unit);
    handle->unit = nullptr;
}

KORVANE_BOOL_EXPORT(bstr_set_string, (bstr_handle* handle, const char* text)) {
    return setFrom(handle, text, [](const char* t) { return t == nullptr ? nullptr : korvane::unitFromString(t); });
}

KORVANE_BOOL_EXPORT(bstr_set_bstrunit, (bstr_handle* handle, const bstrunit* unit)) {
    return setFrom(handle, unit, korvane::copyUnit);
}

KORVANE_BOOL_EXPORT(bstr_set_bstr, (bstr_handle* destination, bstr_handle* source)) {
    // For this setter "nothing to set" is a source handle that is null or
    // holds no string, on the null-destination path as on the others.
    if (destination == nullptr)
        return source == nullptr || source->unit == nullptr;
    return setFrom(destination, source,
                   [](const bstr_handle* s) { return s == nullptr ? nullptr : korvane::copyUnit(s->unit); });
}

const char* bstr_get_string(const bstr_handle* handle) {
    if (handle == nullptr || handle->unit == nullptr)
        return nullptr;
    return bstrunit_data(handle->unit);
}

namespace {
// Both units present: same length and the same data bytes.
bool sameUnit(const bstrunit* a, const bstrunit* b) {
    if (a->length != b->length)
        return false;
    return a->length <= 0 || std::memcmp(bstrunit_data(a), bstrunit_data(b), static_cast<size_t>(a->length)) == 0;
}
} // namespace

KORVANE_BOOL_EXPORT(bstr_equal_bstr, (const bstr_handle* a, const bstr_handle* b)) {
    if (a == nullptr)
        return b == nullptr;
    if (b == nullptr)
        return false;
    if (a->unit == nullptr)
        return b->unit == nullptr;
    if (b->unit == nullptr)
        return false;
    return sameUnit(a->unit, b->unit);
}

KORVANE_BOOL_EXPORT(bstr_equal_bstrunit, (const bstr_handle* handle, const bstrunit* unit)) {
    if (handle == nullptr || handle->unit == nullptr)
        return unit == nullptr;
    if (unit == nullptr)
        return false;
    return sameUnit(handle->unit, unit);
}

void bstr_attach_bstrunit(bstr_handle* handle, bstrunit* unit) {
    // Attaching the unit the handle already owns must not free it first.
    if (handle == nullptr || unit == handle->unit)
        return;
    bstr_clear(handle);
    handle->unit = unit;
}

bstrunit* bstr_detach_bstrunit(bstr_handle* handle) {
    if (handle == nullptr)
        return nullptr;
    bstrunit* unit = handle->unit;
    handle->unit = nullptr;
    return unit;
}
