// Small helpers shared by the tests of value resolution, the reader and
// writer, and the variant wrapper.
#ifndef KORVANE_TESTS_VARIANT_TEST_HELPERS_H
#define KORVANE_TESTS_VARIANT_TEST_HELPERS_H

#include <cstring>
#include <memory>
#include <string>

#include "VariantTestUtil.h"
#include "korvane/automation.h"
#include "korvane/interfaces.h"

namespace arraystest {

// A test's own variant: initialised when made, cleared when gone.
using Variant = kvtest::ScopedVariant;

// A record built by hand: any tag with any 64-bit value.
inline void setRaw(tagTVARIANT* v, TVARTYPE tag, uint64_t bits) {
    variant_clear(v);
    v->vt = tag;
    v->value.bits = bits;
}

// The text of a string variant up to its first NUL ("<null>": no unit).
inline std::string stringOf(const tagTVARIANT* v) {
    return v->value.bstrVal == nullptr ? "<null>" : bstrunit_data(v->value.bstrVal);
}

// The byte a bool holds, read without loading it as a bool (undefined for
// bytes other than 0 and 1).
inline unsigned char byteOf(const bool& value) {
    unsigned char byte;
    std::memcpy(&byte, &value, 1);
    return byte;
}

struct WrapperDestroyer {
    void operator()(variant_wrapper_handle* handle) const { variant_wrapper_destroy(&handle); }
};
using Wrapper = std::unique_ptr<variant_wrapper_handle, WrapperDestroyer>;
struct Releaser {
    void operator()(IBase* object) const { object->releaseRef(); }
};
using Reader = std::unique_ptr<IVariantRead, Releaser>;
using Writer = std::unique_ptr<IVariantWrite, Releaser>;

// A wrapper borrowing `v` that hands out both interfaces.
inline Wrapper wrapperOver(tagTVARIANT* v) {
    Wrapper wrapper(variant_wrapper_create());
    variant_wrapper_set_mode(wrapper.get(), true, true);
    variant_wrapper_set_wrapper_value(wrapper.get(), v, false);
    return wrapper;
}

// A reader's text through the caller-buffer protocol: the size, then the
// text. "<refused>" when either step fails or the answer breaks the protocol.
inline std::string textFrom(IVariantRead* reader, bool (IVariantRead::*get)(char*, unsigned long&)) {
    unsigned long length = 0;
    if (!(reader->*get)(nullptr, length))
        return "<refused>";
    std::string text(length, '#');
    unsigned long size = length;
    if (!(reader->*get)(&text[0], size) || size != length || text.back() != '\0')
        return "<refused>";
    text.pop_back();
    return text;
}

} // namespace arraystest

#endif
