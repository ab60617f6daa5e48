// ThreadSanitizer settings for zubclip. Qt scales large images on its own worker threads and
// hands the work over under locks inside Qt, which is built without the race detector's
// instrumentation, so it reports Qt's own allocations as races. Only reports whose top frame
// or caller is in Qt are left out; our code runs on one thread.
extern "C" __attribute__((used)) const char* __tsan_default_suppressions()
{
    return "called_from_lib:libQt6Gui.so.6\n"
           "called_from_lib:libQt6Core.so.6\n"
           "race_top:libQt6Gui.so.6\n"
           "race_top:libQt6Core.so.6\n";
}
