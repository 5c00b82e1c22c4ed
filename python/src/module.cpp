// The private half of the package vellox: what is not shorter in Python.

#include <cstdio>
#include <cstdlib>

#include "Support.hpp"

namespace vlx::python
{

namespace
{

pid_t process = 0;

/// The log's finaliser waits for threads, which a forked child does not have.
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
