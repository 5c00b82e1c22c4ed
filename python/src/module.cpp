// The native half of the package vellox.

#include <cstdio>
#include <cstdlib>

#include "Support.hpp"

namespace vlx::python
{

namespace
{

pid_t process = 0;

/// Ends a forked child at once: the log's finaliser would wait for threads that it does not have.
void endForkedChild(int code, void* /*unused*/)
{
    if (::getpid() == process)
        return;
    std::fflush(nullptr);
    ::_exit(code);
}

} // unnamed namespace

PYBIND11_MODULE(_core, module)
{
    process = ::getpid();
    ::on_exit(endForkedChild, nullptr);
    module.attr("version") = VLX_PYTHON_VERSION;
    module.def("begin_end", beginEnd);
    addFrame(module);
    module.attr("pybind11_type") = py::type::of(module.attr("Frame")); // for the stubs
    addConsumer(module);
    addProducer(module);
    addDiscovery(module);
    addLog(module);
}

} // namespace vlx::python
