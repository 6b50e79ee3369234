// Text into a variant type the input's first byte picks, and on into every
// other: text converts to each type; an integer becomes text that reads back as the same integer; an
// integer widened and narrowed back is itself again; the only refused pairs
// are the long long types to bool, and a refusal changes nothing.
#include <cstring>
#include <string>

#include "AutomationTestSupport.h"
#include "FuzzCheck.h"

namespace {

using autotest::kWidth;

bool isInteger(TVARTYPE type) { return type >= TVT_CHAR && type <= TVT_ULONGLONG; }

// Converts a copy of v, which must stay as it was when refused.
tagTVARIANT convert(const tagTVARIANT& v, TVARTYPE target, bool expected = true) {
    tagTVARIANT copy;
    variant_init(&copy);
    variant_set_variant(&copy, &v);
    const tagTVARIANT before = copy;
    FUZZ_CHECK(variant_change_type(&copy, target) == expected && copy.vt == (expected ? target : v.vt));
    FUZZ_CHECK(expected || std::memcmp(&before, &copy, sizeof copy) == 0);
    return copy;
}

void checkBack(tagTVARIANT& there, const tagTVARIANT& number) {
    tagTVARIANT back = convert(there, number.vt);
    FUZZ_CHECK(std::memcmp(&back.value, &number.value, kWidth[number.vt]) == 0);
    variant_clear(&there);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    // One type an input keeps each run short; the fuzzer's mutations reach
    // every type.
    const auto type = static_cast<TVARTYPE>(TVT_CHAR + data[0] % (TVT_BOOL - TVT_CHAR + 1));
    const auto* chars = reinterpret_cast<const char*>(data) + 1;
    const std::string text(chars, strnlen(chars, size - 1));
    tagTVARIANT source;
    variant_init(&source);
    variant_set_string(&source, text.c_str(), false);
    {
        tagTVARIANT number = convert(source, type);
        for (TVARTYPE target = TVT_CHAR; type != TVT_STRING && target <= TVT_BOOL; ++target) {
            tagTVARIANT there = convert(number, target, !(target == TVT_BOOL && (type == TVT_LONGLONG || type == TVT_ULONGLONG)));
            if (isInteger(type) && isInteger(target) && kWidth[target] >= kWidth[type])
                checkBack(there, number);
            variant_clear(&there);
        }
        if (isInteger(type) || type == TVT_BOOL) {
            tagTVARIANT asText = convert(number, TVT_STRING);
            checkBack(asText, number);
        }
        variant_clear(&number);
    }
    variant_clear(&source);
    return 0;
}
