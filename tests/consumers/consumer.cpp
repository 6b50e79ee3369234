// A first program against an installed libKorvane: the same source is built
// once through find_package(Korvane) and once through pkg-config.
#include <korvane/korvane.h>

#include <cstdio>

int main() {
    bstr_handle* greeting = bstr_create();
    bstr_set_string(greeting, "42");

    tagTVARIANT value;
    variant_init(&value);
    variant_set_string(&value, bstr_get_string(greeting), true);
    const bool converted = variant_change_type(&value, TVT_INT);
    std::printf("consumer: \"%s\" as int is %d\n", bstr_get_string(greeting), value.value.intVal);

    mutex_handle* mutex = os_mutex_create(nullptr);
    os_mutex_lock(mutex);
    os_mutex_unlock(mutex);
    os_mutex_destroy(&mutex);

    variant_clear(&value);
    bstr_destroy(&greeting);
    return converted && value.vt == TVT_EMPTY && greeting == nullptr && mutex == nullptr ? 0 : 1;
}
