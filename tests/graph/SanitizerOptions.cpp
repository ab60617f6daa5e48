// Sanitizer settings for the graph tests.
//
// GLib allocates a block in its library constructor that it never frees; LeakSanitizer can
// only tell it apart from our own leaks with full stacks, which the framework's libraries
// (built without frame pointers) do not give to the fast unwinder.
//
// GLib and GStreamer hand buffers and state between their threads under futex-based locks
// that ThreadSanitizer does not see, so it reports races inside the framework's own code.
// Those are left out by their top frame; a race whose top frame is in our code is still
// reported.
extern "C" {
__attribute__((used)) const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }
__attribute__((used)) const char* __lsan_default_suppressions() { return "leak:_dl_init\n"; }
__attribute__((used)) const char* __tsan_default_suppressions()
{
    // glibc's loader frees a finished thread's dynamic TLS block (thread-locals of a library
    // opened with dlopen, such as the recorder's) without a lock the detector knows.
    return "race:_dl_deallocate_tls\n"
           "called_from_lib:libglib-2.0.so.0\n"
           "called_from_lib:libgobject-2.0.so.0\n"
           "called_from_lib:libgstreamer-1.0.so.0\n"
           "called_from_lib:libgstbase-1.0.so.0\n"
           "called_from_lib:libgstvideo-1.0.so.0\n"
           "called_from_lib:libgstaudio-1.0.so.0\n"
           "called_from_lib:libgstapp-1.0.so.0\n"
           "called_from_lib:libgstpbutils-1.0.so.0\n"
           "called_from_lib:libavcodec.so.59\n"
           "called_from_lib:libavutil.so.57\n"
           "called_from_lib:libswscale.so.6\n"
           "called_from_lib:libgstlibav.so\n"
           "called_from_lib:libgstcoreelements.so\n"
           "called_from_lib:libgstplayback.so\n"
           "called_from_lib:libgstisomp4.so\n"
           "called_from_lib:libgstmatroska.so\n"
           "called_from_lib:libgstvideoconvertscale.so\n"
           "called_from_lib:libgstaudioconvert.so\n"
           "called_from_lib:libgsttypefindfunctions.so\n"
           "called_from_lib:libgstvideotestsrc.so\n"
           "called_from_lib:libgstwavenc.so\n"
           "called_from_lib:libgstvorbis.so\n"
           "called_from_lib:libgstpng.so\n"
           "called_from_lib:libgstjpeg.so\n"
           "called_from_lib:libjpeg.so.62\n"
           "called_from_lib:libvorbis.so.0\n"
           "called_from_lib:libpng16.so.16\n"
           "called_from_lib:liborc-0.4.so.0\n"
           "mutex:/gstreamer-1.0/\n"
           "mutex:libgstlibav.so\n"
           "mutex:libgstcoreelements.so\n"
           "mutex:libgstreamer-1.0.so.0\n"
           "mutex:libglib-2.0.so.0\n"
           "race_top:libglib-2.0.so.0\n"
           "race_top:libgobject-2.0.so.0\n"
           "race_top:libgstreamer-1.0.so.0\n"
           "race_top:libgstbase-1.0.so.0\n"
           "race_top:libgstvideo-1.0.so.0\n"
           "race_top:libgstaudio-1.0.so.0\n"
           "race_top:libgstapp-1.0.so.0\n"
           "race_top:/gstreamer-1.0/\n"
           "race_top:libavcodec.so\n"
           "race_top:libavutil.so\n"
           "race_top:libswscale.so\n"
           "race_top:liborc-0.4.so\n"
           "race_top:libvorbis.so\n"
           "race_top:libpng16.so\n"
           "race_top:libjpeg.so\n";
}
}
