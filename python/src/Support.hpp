#pragma once

// Helpers of all classes of the module: waiting without the GIL, errors, and Python objects.

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <sys/types.h>
#include <unistd.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Status.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::python
{

namespace py = pybind11;
using Clock = std::chrono::steady_clock;

/// Releases the GIL while it lives. A daemon thread that would reacquire it while the interpreter
/// ends, or afterwards, blocks forever, since it must neither use Python nor unwind. Hold no lock
/// when destroying this object.
class WithoutGil
{
public:
    WithoutGil() : m_thread(PyEval_SaveThread()) {}
    ~WithoutGil();

    WithoutGil(const WithoutGil&) = delete;
    WithoutGil& operator=(const WithoutGil&) = delete;

private:
    PyThreadState* const m_thread;
};

/// Keeps every other thread from reacquiring the GIL.
void beginEnd();

/// Delivers log lines to Python, and runs signal handlers.
///
/// @throws py::error_already_set  if a handler raises
void handleSignals();

/// Waits without the GIL, in pieces short enough for Ctrl-C.
///
/// @param timeout  negative: no limit
/// @param step     called with the longest time that it may wait; returns true to end the wait
/// @return false if the timeout has expired
template <typename Step>
bool waitFor(std::chrono::nanoseconds timeout, Step step)
{
    constexpr std::chrono::nanoseconds Slice = std::chrono::milliseconds(50);
    const Clock::time_point begin = Clock::now();
    for (;;)
    {
        std::chrono::nanoseconds slice = Slice;
        if (timeout.count() >= 0)
            slice = std::clamp(
                timeout - (Clock::now() - begin), std::chrono::nanoseconds::zero(), Slice);
        bool isDone = false;
        {
            const WithoutGil unlocked;
            isDone = step(slice);
        }
        if (isDone) // first, since a signal handler that raises would lose the result
            return true;
        handleSignals();
        if (timeout.count() >= 0 && Clock::now() - begin >= timeout)
            return false;
    }
}

/// @param seconds  not set: no limit
/// @return negative if there is no limit
/// @throws ErrorCode::InvalidArgument for negative numbers and for NaN
std::chrono::nanoseconds toNanoseconds(std::optional<double> seconds);

/// Raises the Python exception for an error code.
[[noreturn]] void raise(kit::ErrorCode code, const std::string& text);

/// Raises an exception of the package by its class's name.
[[noreturn]] void raise(const char* type, const char* code, const std::string& text);

/// Raises the Python exception of a failure.
void check(const kit::Status& status);

/// @return a type of the package that is written in Python
py::object getType(const char* name);

/// Decodes text from a peer or from the file system as os.fsdecode() does.
py::str toPython(const std::string& text);

/// Converts a FourCC to its four characters.
py::str toPythonFourcc(std::uint32_t fourcc);

/// Checks that an object is used in the process that created it.
///
/// @param process  the process that created the object
/// @throws ErrorCode::NotOpen in a forked child
void checkProcess(pid_t process);

/// Representation of samples in numpy.
struct SampleType
{
    const char* name;     ///< of the format
    const char* dtype;    ///< of numpy
    const char* codes;    ///< equivalent types of the struct module
    std::size_t numParts; ///< values per sample of a channel: packed 24-bit samples are three bytes
};

const SampleType& getSampleType(const kit::StreamFormat& format);

/// @throws ErrorCode::InvalidArgument for an unknown name
audioUtils::PcmFormat toSampleFormat(const std::string& name);

/// Makes an array over memory that another object owns, of shape (samples, channels), or (samples,
/// channels, 3) for packed 24-bit samples.
py::array makeArray(
    const kit::StreamFormat& format,
    const void* data,
    std::size_t numBytes,
    py::handle owner);

/// Copies samples of any format.
py::array toFloat(const kit::StreamFormat& format, const std::uint8_t* data, std::size_t numBytes);
py::array toInt32(const kit::StreamFormat& format, const std::uint8_t* data, std::size_t numBytes);

/// Converts to the objects of the package.
py::object toPythonFormat(const kit::StreamFormat& format);
py::object toPythonCodec(const kit::CodecFormat& codec);

// Of module.cpp.
void addConsumer(py::module_& module);
void addDiscovery(py::module_& module);
void addFrame(py::module_& module);
void addLog(py::module_& module);
void addProducer(py::module_& module);

/// Delivers waiting log lines to Python.
void deliverLog();

} // namespace vlx::python
