// Test plug-in without the entry symbol.

extern "C" __attribute__((visibility("default"))) int vigild_other() {
    return 0;
}
