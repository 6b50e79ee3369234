// The variant wrapper: one variant, borrowed from the caller or owned as a
// private copy, bound to one reader and one writer that it hands out
// according to its read/write mode.
#include <memory>

#include "automation/VariantInterfaces.h"
#include "common/BoolExport.h"
#include "korvane/automation.h"
#include "common/HandleFrame.h"

class variant_wrapper_handle {
public:
    variant_wrapper_handle();
    variant_wrapper_handle(const variant_wrapper_handle&) = delete;
    variant_wrapper_handle& operator=(const variant_wrapper_handle&) = delete;
    virtual ~variant_wrapper_handle();

    // Frees an owned value and leaves the wrapper unbound.
    void releaseOwnedValue();
    // Binds `v` (null unbinds) and points the reader and writer at it.
    void bind(tagTVARIANT* v, bool owns);
    // Binds a private copy of `source` that the wrapper owns.
    void bindCopyOf(const tagTVARIANT* source);

    bool readable = true;
    bool writable = false;
    bool ownsValue = false;
    tagTVARIANT* value = nullptr;
    CVariantRead* reader = nullptr;
    CVariantWrite* writer = nullptr;
};

variant_wrapper_handle::variant_wrapper_handle() : reader(new CVariantRead) {
    try {
        writer = new CVariantWrite;
    } catch (...) {
        reader->releaseRef();
        throw;
    }
}

variant_wrapper_handle::~variant_wrapper_handle() {
    // Readers and writers still held by callers outlive the wrapper; they are
    // left unbound so that a late call answers false instead of touching a
    // freed variant.
    releaseOwnedValue();
    bind(nullptr, false);
    writer->releaseRef();
    reader->releaseRef();
}

void variant_wrapper_handle::releaseOwnedValue() {
    if (!ownsValue)
        return;
    tagTVARIANT* owned = value;
    bind(nullptr, false);
    if (owned != nullptr) {
        variant_clear(owned);
        delete owned;
    }
}

void variant_wrapper_handle::bind(tagTVARIANT* v, bool owns) {
    value = v;
    ownsValue = owns;
    reader->setWrapperValue(v);
    writer->setWrapperValue(v);
}

void variant_wrapper_handle::bindCopyOf(const tagTVARIANT* source) {
    auto copy = std::make_unique<tagTVARIANT>();
    variant_init(copy.get());
    variant_set_variant(copy.get(), source);
    bind(copy.release(), true);
}

variant_wrapper_handle* variant_wrapper_create(void) {
    return new variant_wrapper_handle;
}

void variant_wrapper_destroy(variant_wrapper_handle** handle) {
    korvane::destroyHandle(handle);
}

void variant_wrapper_set_mode(variant_wrapper_handle* handle, bool readable, bool writable) {
    if (handle == nullptr)
        return;
    handle->readable = readable;
    handle->writable = writable;
}

void variant_wrapper_set_wrapper_value(variant_wrapper_handle* handle, tagTVARIANT* value, bool copy) {
    if (handle == nullptr)
        return;
    // Binding the wrapper's own private copy again keeps it as it is: freeing
    // it first would leave nothing to bind or copy.
    if (handle->ownsValue && value == handle->value)
        return;
    handle->releaseOwnedValue();
    if (value == nullptr || !copy)
        handle->bind(value, false);
    else
        handle->bindCopyOf(value);
}

tagTVARIANT* variant_wrapper_get_wrapper_value(variant_wrapper_handle* handle) {
    return handle == nullptr ? nullptr : handle->value;
}

KORVANE_BOOL_EXPORT(variant_wrapper_get_type, (variant_wrapper_handle* handle, char* buffer, unsigned long* length)) {
    if (handle == nullptr || length == nullptr)
        return false;
    return handle->reader->getType(buffer, *length);
}

KORVANE_BOOL_EXPORT(variant_wrapper_set_type, (variant_wrapper_handle* handle, const char* name)) {
    if (handle == nullptr)
        return false;
    return handle->writer->setType(name);
}

namespace {
// An interface handed out with a reference added, when the mode allows it.
template <class Interface>
Interface* handOut(bool allowed, Interface* object) {
    if (!allowed || object == nullptr)
        return nullptr;
    object->addRef();
    return object;
}
} // namespace

IVariantRead* variant_wrapper_get_variantread(variant_wrapper_handle* handle) {
    return handle == nullptr ? nullptr : handOut(handle->readable, handle->reader);
}

IVariantWrite* variant_wrapper_get_variantwrite(variant_wrapper_handle* handle) {
    return handle == nullptr ? nullptr : handOut(handle->writable, handle->writer);
}

variant_wrapper_handle* variant_wrapper_clone(variant_wrapper_handle* handle) {
    if (handle == nullptr)
        return nullptr;
    auto clone = std::make_unique<variant_wrapper_handle>();
    clone->readable = handle->readable;
    clone->writable = handle->writable;
    // A clone always owns its value, even when the original borrowed it.
    if (handle->value == nullptr)
        clone->ownsValue = handle->ownsValue;
    else
        clone->bindCopyOf(handle->value);
    return clone.release();
}
