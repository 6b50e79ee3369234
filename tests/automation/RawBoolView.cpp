// The exported bool resolver seen as what it hands back: one byte. This file
// does not include the library's declaration (which says bool), so the test
// reads an unnormalised byte such as 2 without loading it as a C++ bool.
#include "korvane/types.h"

extern "C" unsigned char variant_resolve_as_bool(const tagTVARIANT* v);

unsigned char resolvedBoolByte(const tagTVARIANT* v) {
    return variant_resolve_as_bool(v);
}
