// Conversions between the OEM code page and UTF-8. The OEM code page of this
// platform is UTF-8 itself, so both directions copy the text; they keep the
// caller-buffer protocol because callers written for other platforms size
// their buffers with it.
#include <cstring>

#include "common/BoolExport.h"
#include "common/CallerBuffer.h"
#include "korvane/system.h"

namespace {
bool copyConverted(const char* text, char* buffer, size_t* size) {
    if (size == nullptr)
        return false;
    return korvane::copyToCallerBuffer(text, std::strlen(text), buffer, *size);
}
} // namespace

KORVANE_BOOL_EXPORT(os_utf8helper_oem_from_utf8, (const char* text, char* buffer, size_t* size)) {
    // A null text converts to the empty string in this direction only.
    return copyConverted(text != nullptr ? text : "", buffer, size);
}

KORVANE_BOOL_EXPORT(os_utf8helper_oem_to_utf8, (const char* text, char* buffer, size_t* size)) {
    // This direction has never accepted a null text (the asymmetry is kept
    // for existing callers); it is refused instead of being read.
    if (text == nullptr)
        return false;
    return copyConverted(text, buffer, size);
}
