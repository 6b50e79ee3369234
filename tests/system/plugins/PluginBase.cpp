// Test library loaded first, with global binding, so its definition of
// kv_identity can interpose on later libraries.
extern "C" __attribute__((visibility("default"))) int kv_identity() {
    return 1;
}
