// Test library for the loader flags: its own kv_identity, a function that
// reports which kv_identity it reaches, and a reference to a function nobody
// defines, which only immediate binding resolves at load time.
#define KV_EXPORT extern "C" __attribute__((visibility("default")))

// Weak, so calls to it always go through the dynamic linker's lookup.
KV_EXPORT __attribute__((weak, noinline)) int kv_identity() {
    return 2;
}

KV_EXPORT int kv_which() {
    return kv_identity();
}

KV_EXPORT int kv_missing_function();

KV_EXPORT int kv_calls_missing() {
    return kv_missing_function();
}
