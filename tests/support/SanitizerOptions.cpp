#include <vlx/VlxTypes.hpp>

// What the sanitizers need to know of a test program and of the tool that tests run, so that it holds
// however the program is started. Each suppression is for other people's code, with its reason; there
// is none for our own.
extern "C"
{
    // NOLINTBEGIN(bugprone-reserved-identifier): the sanitizers' names
    VLX_API const char* __lsan_default_options()
    {
        return "print_suppressions=0";
    }

    // nanomsg does not release an endpoint whose bind has failed.
    VLX_API const char* __lsan_default_suppressions()
    {
        return "leak:nn_bipc_create\n";
    }

    VLX_API const char* __tsan_default_options()
    {
        // Forked children of some tests start threads.
        return "halt_on_error=1:die_after_fork=0";
    }

    // GLib, GObject, GIO and GStreamer are not instrumented, and GLib's locks are plain futex calls:
    // the sanitizer sees their calls of malloc, memset, write and the like, but not the locks that
    // order them. Only calls made directly by these libraries are left out; ours are checked.
    VLX_API const char* __tsan_default_suppressions()
    {
        return "called_from_lib:libglib-2.0.so\n"
               "called_from_lib:libgobject-2.0.so\n"
               "called_from_lib:libgio-2.0.so\n"
               "called_from_lib:libgstreamer-1.0.so\n"
               "called_from_lib:libgstnet-1.0.so\n";
    }

    VLX_API const char* __ubsan_default_options()
    {
        return "print_stacktrace=1";
    }
    // NOLINTEND(bugprone-reserved-identifier)
}
