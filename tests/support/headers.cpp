// A program needs a source; this one carries the precompiled headers of the tests.
int main() {}
