// A first program against an installed libKorvane, through the flat
// interface (the C++ layer has the examples): the same source is built once
// through find_package(Korvane) and once through pkg-config.
#include <korvane/korvane.h>

#include <cstdio>

int main() {
    tagTVARIANT value;
    variant_init(&value);
    variant_set_string(&value, "42", true);
    const bool converted = variant_change_type(&value, TVT_INT);
    std::printf("consumer: \"42\" as int is %d\n", value.value.intVal);
    variant_clear(&value);
    return converted && value.vt == TVT_EMPTY ? 0 : 1;
}
