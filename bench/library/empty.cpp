// empty.cpp - nothing, as a shared library.
extern "C" __attribute__((visibility("default"))) int bench_empty() { return 0; }
