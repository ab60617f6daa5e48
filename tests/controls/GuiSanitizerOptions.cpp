// Sanitizer settings for the widget tests.
//
// Fontconfig keeps a cache block for the life of the process and the accessibility bridge's
// D-Bus connection (under a real X server) keeps its buffers; neither library frees them at
// exit. LeakSanitizer names them by the library in the stack, so a leak of our own, whose
// stack starts in our code or in Qt, is still reported.
extern "C" {
__attribute__((used)) const char* __lsan_default_suppressions()
{
    return "leak:libfontconfig.so\n"
           "leak:libdbus-1.so\n";
}
}
