// What the automation families share: the handle classes behind the opaque
// pointers and the one way a bstrunit is built or copied.
#ifndef KORVANE_AUTOMATION_INTERNAL_H
#define KORVANE_AUTOMATION_INTERNAL_H

#include <cstdint>
#include <memory>
#include <string>

#include "korvane/automation.h"
#include "korvane/types.h"

// Owns at most one bstrunit. Destruction goes through the virtual deleting
// destructor, as for every handle class.
class bstr_handle {
public:
    bstr_handle() = default;
    bstr_handle(const bstr_handle&) = delete;
    bstr_handle& operator=(const bstr_handle&) = delete;
    virtual ~bstr_handle();

    bstrunit* unit = nullptr;
};

namespace korvane {

// A new unit of `length` bytes (length sign-extended, so a negative length
// makes the allocation throw) holding a copy of `bytes` when length >= 1.
bstrunit* makeUnit(int32_t length, const void* bytes);
// Deep copy of a unit as it stands; null for null.
bstrunit* copyUnit(const bstrunit* unit);
// Unit holding `text` and its NUL (length strlen + 1).
bstrunit* unitFromString(const char* text);
// A unit's text up to its first NUL, never read past its length (a unit
// built by hand need not end in NUL); no unit or an empty one is "".
std::string unitText(const bstrunit* unit);

struct UnitDeleter {
    void operator()(bstrunit* unit) const { bstrunit_free(unit); }
};
// A unit the library holds for the length of one call.
using UniqueUnit = std::unique_ptr<bstrunit, UnitDeleter>;

// A variant the library itself owns for the length of one call: initialised
// when made, cleared (its string freed) when gone.
class ScopedVariant {
public:
    ScopedVariant() { variant_init(&m_value); }
    ~ScopedVariant() { variant_clear(&m_value); }
    ScopedVariant(const ScopedVariant&) = delete;
    ScopedVariant& operator=(const ScopedVariant&) = delete;

    tagTVARIANT* get() { return &m_value; }

private:
    tagTVARIANT m_value;
};

} // namespace korvane

#endif
