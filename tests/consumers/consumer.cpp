// A first program against an installed libKorvane, through the C++ layer
// (which includes the flat headers): the same source is built once through
// find_package(Korvane) and once through pkg-config.
#include <korvane/korvane.hpp>

#include <cstdio>

int main() {
    const korvane::Variant text("42");
    const std::optional<int> value = text.try_get<int>();
    std::printf("consumer: \"%s\" as int is %d\n", text.to_string().c_str(), value.value_or(-1));
    korvane::Mutex mutex;
    std::lock_guard<korvane::Mutex> hold(mutex);
    return value == 42 ? 0 : 1;
}
