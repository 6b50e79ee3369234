// korvane-demo: a short tour of the library.
#include <cstdio>

#include "korvane/korvane.h"

int main() {
    bstr_handle* text = bstr_create();
    bstr_set_string(text, "hello from libKorvane");
    std::printf("bstr: \"%s\"\n", bstr_get_string(text));
    bstr_destroy(&text);

    struct timespec now;
    os_clock_get_time(1, &now);
    std::printf("monotonic clock: %lld.%09ld s\n", static_cast<long long>(now.tv_sec), now.tv_nsec);
    return 0;
}
