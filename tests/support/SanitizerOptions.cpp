#include <vlx/VlxTypes.hpp>

// Sanitizer options of the test programs and of the tool, compiled in so that they apply however a
// program is started. Each suppression is for foreign code, with its reason.
extern "C"
{
    // NOLINTBEGIN(bugprone-reserved-identifier): the sanitizers' names
    VLX_API const char* __lsan_default_options()
    {
        return "print_suppressions=0";
    }

    // nanomsg does not release an endpoint whose bind has failed. log4cplus sometimes does not
    // release a thread's data if the thread, such as one of GLib's pool, ends with the process.
    VLX_API const char* __lsan_default_suppressions()
    {
        return "leak:nn_bipc_create\n"
               "leak:log4cplus::internal::alloc_ptd\n";
    }

    VLX_API const char* __tsan_default_options()
    {
        // Forked children of some tests start threads.
        return "halt_on_error=1:die_after_fork=0";
    }

    // GLib, GObject, GIO and GStreamer are not instrumented, and GLib's locks are plain futex
    // calls: the sanitizer sees their calls of malloc, memset, write and others, but not the locks
    // that order them. Only calls made directly by these libraries are suppressed.
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
