// Safe arrays: one-dimensional arrays of one variant type behind a handle,
// read and written one element at a time with bounds checks, or copied out
// whole as snapshots that the array keeps until they are released.
#include <algorithm>
#include <cstring>
#include <utility>

#include "automation/AutomationInternal.h"
#include "automation/SafeArrayInternal.h"
#include "automation/ScalarTypes.h"
#include "common/BoolExport.h"
#include "common/HandleFrame.h"

namespace {

// Bytes per stored element: the scalar's own width, a pointer for strings,
// and 0 for TVT_EMPTY and unknown types, which never get storage.
size_t elementWidth(TVARTYPE type) {
    if (type == TVT_STRING)
        return sizeof(bstrunit*);
    return korvane::dispatchScalar(type, size_t{0},
                                   [](auto tag) { return sizeof(korvane::Scalar<decltype(tag)::value>); });
}

bool isStorableType(TVARTYPE type) {
    return elementWidth(type) != 0;
}

unsigned char* bytesOf(void* data) {
    return static_cast<unsigned char*>(data);
}
const unsigned char* bytesOf(const void* data) {
    return static_cast<const unsigned char*>(data);
}

// String elements live in a byte array, so they are moved in and out with
// memcpy rather than through a typed pointer.
bstrunit* unitAt(const void* data, uint32_t index) {
    bstrunit* unit;
    std::memcpy(&unit, bytesOf(data) + size_t{index} * sizeof unit, sizeof unit);
    return unit;
}

void storeUnitAt(void* data, uint32_t index, bstrunit* unit) {
    std::memcpy(bytesOf(data) + size_t{index} * sizeof unit, &unit, sizeof unit);
}

// Zero-filled storage for `count` elements of a storable type.
void* allocateStorage(TVARTYPE type, uint32_t count) {
    return new unsigned char[size_t{count} * elementWidth(type)]();
}

// Frees a storage block holding `count` elements of `type`; for strings the
// units go first. Null storage is ignored.
void freeStorage(TVARTYPE type, void* data, uint32_t count) {
    if (data == nullptr)
        return;
    if (type == TVT_STRING) {
        for (uint32_t i = 0; i < count; ++i)
            bstrunit_free(unitAt(data, i));
    }
    delete[] bytesOf(data);
}

// Storage being built: freed, units included, unless it is released. Keeps
// a copy that fails half-way from leaking what it had already copied.
class PendingStorage {
public:
    PendingStorage(TVARTYPE type, uint32_t count)
        : m_type(type), m_count(count), m_data(allocateStorage(type, count)) {}
    PendingStorage(const PendingStorage&) = delete;
    PendingStorage& operator=(const PendingStorage&) = delete;
    ~PendingStorage() { freeStorage(m_type, m_data, m_count); }

    void* get() const { return m_data; }
    void* release() { return std::exchange(m_data, nullptr); }

private:
    TVARTYPE m_type;
    uint32_t m_count;
    void* m_data;
};

// Fills zeroed storage with copies of the first `copied` elements of
// `source`; string elements are deep copies of their units.
void copyElements(TVARTYPE type, const void* source, void* target, uint32_t copied) {
    if (copied == 0)
        return;
    if (type == TVT_STRING) {
        for (uint32_t i = 0; i < copied; ++i)
            storeUnitAt(target, i, korvane::copyUnit(unitAt(source, i)));
        return;
    }
    std::memcpy(target, source, size_t{copied} * elementWidth(type));
}

// True when element `index` of `handle` can be read or written through
// `pointer`: both present, index in bounds, and a type that has storage.
bool canUseElement(const safearray_handle* handle, uint32_t index, const void* pointer) {
    return handle != nullptr && pointer != nullptr && index < handle->count && isStorableType(handle->vt);
}

unsigned char* elementAddress(const safearray_handle* handle, uint32_t index) {
    return bytesOf(handle->data) + size_t{index} * elementWidth(handle->vt);
}

} // namespace

safearray_handle::safearray_handle(TVARTYPE type, uint32_t count) : tagTSAFEITEMARRAY{type, 0, nullptr} {
    if (count == 0)
        return;
    // Type 0 and unknown types report the count but get no storage, so they
    // refuse every element operation; existing callers rely on this.
    this->count = count;
    if (!isStorableType(type))
        return;
    data = allocateStorage(type, count);
}

safearray_handle::~safearray_handle() {
    releaseSnapshots();
    clearElements();
}

void safearray_handle::releaseSnapshots() {
    for (_ALLOC_DATA_BLOCK& block : blocks) {
        if (block.vt < TVT_CHAR || block.vt > TVT_BOOL)
            continue;
        // Only the snapshot array is freed: the unit copies of a string
        // snapshot stay with whoever took them. Kept for existing callers.
        delete[] bytesOf(block.data);
        block = _ALLOC_DATA_BLOCK{TVT_EMPTY, nullptr, 0};
    }
    blocks.clear();
}

void safearray_handle::clearElements() {
    if (count == 0)
        return;
    const uint32_t oldCount = count;
    count = 0;
    freeStorage(vt, data, oldCount);
    data = nullptr;
}

safearray_handle* safearray_create(TVARTYPE type, uint32_t count) {
    return new safearray_handle(type, count);
}

void safearray_destroy(safearray_handle** handle) {
    korvane::destroyHandle(handle);
}

void safearray_clear(safearray_handle* handle) {
    if (handle != nullptr)
        handle->clearElements();
}

TVARTYPE safearray_get_element_type(const safearray_handle* handle) {
    return handle == nullptr ? TVARTYPE{TVT_EMPTY} : handle->vt;
}

uint32_t safearray_get_element_count(const safearray_handle* handle) {
    return handle == nullptr ? 0 : handle->count;
}

KORVANE_BOOL_EXPORT(safearray_set_element, (safearray_handle* handle, uint32_t index, const void* value)) {
    if (!canUseElement(handle, index, value))
        return false;
    if (handle->vt == TVT_STRING) {
        bstrunit* source;
        std::memcpy(&source, value, sizeof source);
        // The unit the element held before is overwritten, not freed: that is
        // how the array has always behaved and it is kept for existing callers.
        storeUnitAt(handle->data, index, korvane::copyUnit(source));
        return true;
    }
    std::memcpy(elementAddress(handle, index), value, elementWidth(handle->vt));
    return true;
}

KORVANE_BOOL_EXPORT(safearray_get_element, (const safearray_handle* handle, uint32_t index, void* out)) {
    if (!canUseElement(handle, index, out))
        return false;
    if (handle->vt == TVT_STRING) {
        bstrunit* copy = korvane::copyUnit(unitAt(handle->data, index)); // the caller owns it
        std::memcpy(out, &copy, sizeof copy);
        return true;
    }
    std::memcpy(out, elementAddress(handle, index), elementWidth(handle->vt));
    return true;
}

KORVANE_BOOL_EXPORT(safearray_access_element, (safearray_handle* handle, void** out)) {
    if (handle == nullptr || out == nullptr)
        return false;
    if (handle->count == 0) {
        *out = nullptr;
        return true;
    }
    if (!isStorableType(handle->vt))
        return false;
    PendingStorage snapshot(handle->vt, handle->count);
    copyElements(handle->vt, handle->data, snapshot.get(), handle->count);
    handle->blocks.push_back(_ALLOC_DATA_BLOCK{handle->vt, snapshot.get(), handle->count});
    *out = snapshot.release();
    return true;
}

KORVANE_BOOL_EXPORT(safearray_unaccess_element, (safearray_handle* handle)) {
    if (handle == nullptr)
        return false;
    handle->releaseSnapshots();
    return true;
}

KORVANE_BOOL_EXPORT(safearray_resize, (safearray_handle* handle, uint32_t count)) {
    if (handle == nullptr)
        return false;
    if (count == handle->count)
        return true;
    const uint32_t oldCount = handle->count;
    if (!isStorableType(handle->vt)) {
        // The count changes even though the resize is refused; existing
        // callers rely on this.
        handle->count = count;
        return false;
    }
    // The new storage is complete before anything of the array changes, so
    // an allocation failure leaves the array as it was.
    void* replacement = nullptr;
    if (count != 0) {
        PendingStorage storage(handle->vt, count);
        copyElements(handle->vt, handle->data, storage.get(), std::min(oldCount, count));
        replacement = storage.release();
    }
    void* previous = std::exchange(handle->data, replacement);
    handle->count = count;
    freeStorage(handle->vt, previous, oldCount);
    return true;
}
