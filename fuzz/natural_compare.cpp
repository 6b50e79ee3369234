// Natural-order comparison over three strings cut from the input: less is
// greater with its arguments swapped, no string sorts before itself or both
// before and after another, and the order is transitive.
#include <sstream>
#include <string>

#include "FuzzCheck.h"
#include "korvane/system.h"

namespace {

bool greater(const std::string& a, const std::string& b) {
    return os_clibrary_string_intelligent_greater(a.c_str(), b.c_str());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The input's NUL bytes separate the strings.
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    std::string s[3];
    for (std::string& part : s)
        std::getline(input, part, '\0');
    for (const std::string& a : s) {
        FUZZ_CHECK(!greater(a, a));
        for (const std::string& b : s) {
            FUZZ_CHECK(os_clibrary_string_intelligent_less(a.c_str(), b.c_str()) == greater(b, a));
            FUZZ_CHECK(!(greater(a, b) && greater(b, a)));
            for (const std::string& c : s) {
                if (greater(a, b) && greater(b, c))
                    FUZZ_CHECK(greater(a, c));
            }
        }
    }
    return 0;
}
