// The formatted-length helper and natural-order comparison.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "korvane/system.h"

namespace {

// Asks for the length, then formats with the same va_list: the helper must
// have left it untouched.
std::string formatTwice(int* length, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    *length = os_clibrary_string_get_formatted_length(format, arguments);
    char buffer[64] = {};
    if (format != nullptr)
        vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

TEST(FormattedLength, CountsTheNulAndLeavesTheArgumentsUsable) {
    int length = 0;
    EXPECT_EQ(formatTwice(&length, "%d-%s", 42, "ab"), "42-ab");
    EXPECT_EQ(length, 6);
    EXPECT_EQ(formatTwice(&length, "%s|%5.2f|%lld", "x", 3.14159, 1234567890123LL), "x| 3.14|1234567890123");
    EXPECT_EQ(length, 22);
    EXPECT_EQ(formatTwice(&length, ""), "");
    EXPECT_EQ(length, 1);
}

TEST(FormattedLength, FailureGivesMinusOne) {
    int length = 0;
    formatTwice(&length, nullptr);
    EXPECT_EQ(length, -1);
    // A wide character the "C" locale cannot encode makes vsnprintf fail.
    const std::string saved = setlocale(LC_CTYPE, nullptr);
    setlocale(LC_CTYPE, "C");
    formatTwice(&length, "%lc", static_cast<wint_t>(0x20AC));
    setlocale(LC_CTYPE, saved.c_str());
    EXPECT_EQ(length, -1);
}

struct Ordered {
    const char* a;
    const char* b;
    bool aAfterB;
};

// Pairs whose greater(a, b) is stated; each row is also checked mirrored and
// through less, which must be greater with its arguments swapped.
const std::vector<Ordered> kPairs = {
    {"file10", "file9", true},
    {"file9", "file10", false},
    {"a12", "a123", false},   // the run '12' is re-read from its start
    {"a123", "a12", true},
    {"x19y", "x123y", false}, // the difference falls inside a run
    {"v1.10", "v1.9", true},
    {"abc", "abcd", false},
    {"abcd", "abc", true},
    {"", "", false},
    {"x", "", true},
    {"", "x", false},
    {"a1", "ab", false}, // digits sort before other bytes
    {"ab", "a1", true},
    {"Z", "a", false},   // plain byte order, no case folding
    {"a", "Z", true},
    {"07", "7", false},  // equal values: neither is greater
    {"7", "07", false},
    {"img007b", "img7a", false}, // equal numbers end the comparison: no later byte decides
    {"img7a", "img007b", false},
    {"same", "same", false},
    {"\xe9t\xe9", "ete", true}, // bytes compare unsigned
    // Values are strtol's (LONG_MAX on overflow) cut to 32 bits.
    {"4294967296", "1", false},   // 2^32 reads as 0
    {"4294967301", "4", true},    // 2^32 + 5 reads as 5
    {"4294967301", "6", false},
    {"1000000000000000000", "999999999999999999", true}, // -1486618624 > -1486618625
    {"999999999999999999", "1000000000000000000", false},
    {"99999999999999999999", "0", false}, // saturates to LONG_MAX, which reads as -1
    {"0", "9223372036854775808", true},
    {nullptr, "a", false},
    {"a", nullptr, true},
};

TEST(NaturalOrder, TableInBothDirections) {
    for (const Ordered& row : kPairs) {
        const std::string label = std::string(row.a ? row.a : "(null)") + " vs " + (row.b ? row.b : "(null)");
        EXPECT_EQ(os_clibrary_string_intelligent_greater(row.a, row.b), row.aAfterB) << label;
        EXPECT_EQ(os_clibrary_string_intelligent_less(row.b, row.a), row.aAfterB) << label;
        EXPECT_EQ(os_clibrary_string_intelligent_less(row.a, row.b), os_clibrary_string_intelligent_greater(row.b, row.a))
            << label;
    }
}

TEST(NaturalOrder, SortingFileNamesWithLessGivesTheExpectedOrder) {
    std::vector<std::string> names = {"file10.txt", "file2.txt", "File1.txt", "file1.txt", "file100.txt",
                                      "file20.txt", "img12.png", "img3.png", "notes.txt"};
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return os_clibrary_string_intelligent_less(a.c_str(), b.c_str());
    });
    EXPECT_EQ(names, (std::vector<std::string>{"File1.txt", "file1.txt", "file2.txt", "file10.txt", "file20.txt",
                                               "file100.txt", "img3.png", "img12.png", "notes.txt"}));
}

} // namespace
