// Sequences of safe array operations decoded from the input, checked against
// a model of the bounds, the contents and the snapshots recorded. String
// units the array deliberately drops without freeing (an overwritten
// element's, those in released snapshots) are freed here, so the leak
// checker sees only real losses.
#include <cstring>
#include <string>
#include <vector>

#include "AutomationTestSupport.h"
#include "FuzzCheck.h"
#include "automation/SafeArrayInternal.h"

namespace {

using autotest::kWidth;

// The snapshots the array still records. Its class's type information stays
// inside the library, so this is exempt from the sanitizer's dynamic-type check.
__attribute__((no_sanitize("vptr"))) size_t snapshotsOf(const safearray_handle* h) { return h->blocks.size(); }

// An element as bytes: a scalar's value; for a string '+' and its unit's
// data, or nothing for an element without a unit.
std::string read(TVARTYPE type, const void* element) {
    if (type != TVT_STRING)
        return std::string(static_cast<const char*>(element), kWidth[type]);
    const bstrunit* unit = *static_cast<bstrunit* const*>(element);
    return unit == nullptr ? std::string() : "+" + std::string(bstrunit_data(unit), unit->length);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto next = [&] { return size == 0 ? 0 : (--size, *data++); };
    const TVARTYPE type = next() % 16;
    const bool known = type >= TVT_CHAR && type <= TVT_BOOL;
    const std::string zero = type == TVT_STRING || !known ? std::string() : std::string(kWidth[type], '\0');
    uint32_t count = next() % 8;
    safearray_handle* array = safearray_create(type, count);
    std::vector<std::string> model(known ? count : 0, zero);
    std::vector<bstrunit*> copies; // units in snapshots handed out
    size_t snapshots = 0;          // recorded until the next unaccess, whatever resize and clear do
    while (size > 0) {
        const uint8_t op = next() % 6;
        const uint32_t index = next() % 10;
        const bool inside = known && index < count;
        FUZZ_CHECK(safearray_get_element_count(array) == count && safearray_get_element_type(array) == type);
        FUZZ_CHECK(snapshotsOf(array) == snapshots);
        if (op == 0) { // set
            uint64_t value = 0;
            for (int i = 0; i < 8; ++i)
                value = value << 8 | next();
            bstrunit* unit = value % 4 == 0 ? nullptr : bstrunit_alloc(static_cast<int32_t>(value % 5));
            if (unit != nullptr)
                std::memset(bstrunit_data(unit), 'a' + static_cast<int>(value % 26), static_cast<size_t>(unit->length));
            const void* source = type == TVT_STRING ? static_cast<const void*>(&unit) : &value;
            if (inside && type == TVT_STRING)
                bstrunit_free(static_cast<bstrunit**>(array->data)[index]);
            FUZZ_CHECK(safearray_set_element(array, index, source) == inside);
            if (inside)
                model[index] = read(type, source);
            bstrunit_free(unit);
        } else if (op == 1) { // get
            bstrunit* out[2] = {};
            FUZZ_CHECK(safearray_get_element(array, index, out) == inside);
            FUZZ_CHECK(!inside || read(type, out) == model[index]);
            if (inside && type == TVT_STRING)
                bstrunit_free(out[0]);
        } else if (op == 2) { // resize; a refused type still accepts its own count
            FUZZ_CHECK(safearray_resize(array, index) == (known || index == count));
            count = index;
            model.resize(known ? count : 0, zero);
        } else if (op == 3) { // clear
            safearray_clear(array);
            count = 0;
            model.clear();
        } else if (op == 4) { // access
            void* snapshot = &copies;
            const bool accepted = safearray_access_element(array, &snapshot);
            FUZZ_CHECK(accepted == (known || count == 0) && (!accepted || count > 0 || snapshot == nullptr));
            snapshots += accepted && count > 0;
            for (uint32_t i = 0; accepted && i < count; ++i)
                FUZZ_CHECK(read(type, static_cast<char*>(snapshot) + i * kWidth[type]) == model[i]);
            if (accepted && type == TVT_STRING)
                copies.insert(copies.end(), static_cast<bstrunit**>(snapshot), static_cast<bstrunit**>(snapshot) + count);
        } else { // unaccess
            FUZZ_CHECK(safearray_unaccess_element(array));
            snapshots = 0;
            for (bstrunit* unit : copies)
                bstrunit_free(unit);
            copies.clear();
        }
    }
    for (bstrunit* unit : copies)
        bstrunit_free(unit);
    safearray_destroy(&array);
    FUZZ_CHECK(array == nullptr);
    return 0;
}
