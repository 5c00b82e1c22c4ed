// The native half of the package vellox.

#include <vlxkit/Logging.hpp>

#include "Support.hpp"

namespace vlx::python
{

PYBIND11_MODULE(_core, module)
{
    kit::endLogThreads();
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
