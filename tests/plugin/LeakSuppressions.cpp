// Leaks of third-party libraries that the module loads, not of ours, for the
// leak checker of sanitizer builds (which asks the program for them; in other
// builds nothing calls this).
//
// lensfun 0.3 loses a path string that glib builds while the lens database
// loads, once per load of the module. glib has no frame pointers, so the
// report's stack ends inside glib: the match is on the library.
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions() {
    return "leak:libglib-2.0.so\n";
}
