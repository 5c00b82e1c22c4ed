#include "Support.hpp"

#include <atomic>

#include <cxxabi.h>

#include <vlxkit/Discovery.hpp>
#include <vlxkit/Media.hpp>

namespace vlx::python
{

namespace
{

std::atomic<pid_t> endingThread = 0;

[[noreturn]] void sleepForever()
{
    for (;;)
        ::pause();
}

} // unnamed namespace

WithoutGil::~WithoutGil()
{
    if (endingThread != 0 && endingThread != ::gettid())
        sleepForever();
    try
    {
        PyEval_RestoreThread(m_thread);
    }
    catch (abi::__forced_unwind&)
    {
        sleepForever();
    }
}

void beginEnd()
{
    endingThread = ::gettid();
}

void handleSignals()
{
    deliverLog();
    if (PyErr_CheckSignals() != 0)
        throw py::error_already_set();
}

std::chrono::nanoseconds toNanoseconds(std::optional<double> seconds)
{
    constexpr double Longest = 1e9;
    if (!seconds)
        return std::chrono::nanoseconds(-1);
    if (!(*seconds >= 0))
        raise(kit::ErrorCode::InvalidArgument, "a time in seconds must be 0 or more");
    return std::chrono::nanoseconds(
        static_cast<std::int64_t>(std::min(*seconds, Longest) * 1'000'000'000));
}

py::object getType(const char* name)
{
    return py::module_::import("vellox._types").attr(name);
}

void raise(const char* type, const char* code, const std::string& text)
{
    const py::object exceptionType = getType(type);
    const py::object exception = exceptionType(toPython(text));
    exception.attr("code") = code;
    PyErr_SetObject(exceptionType.ptr(), exception.ptr());
    throw py::error_already_set();
}

void raise(kit::ErrorCode code, const std::string& text)
{
    const char* type = "Error";
    switch (code)
    {
    case kit::ErrorCode::NameTaken:
        type = "NameTaken";
        break;
    case kit::ErrorCode::NameInvalid:
    case kit::ErrorCode::InvalidArgument:
        type = "InvalidArgument";
        break;
    case kit::ErrorCode::NotPermitted:
    case kit::ErrorCode::DirectoryNotTrusted:
        type = "NotPermitted";
        break;
    case kit::ErrorCode::NotOpen:
    case kit::ErrorCode::Stopped:
        type = "Closed";
        break;
    case kit::ErrorCode::TimedOut:
        type = "TimedOut";
        break;
    case kit::ErrorCode::Ok:
    case kit::ErrorCode::NoDirectory:
    case kit::ErrorCode::OutOfResources:
    case kit::ErrorCode::AlreadyOpen:
    case kit::ErrorCode::Interrupted:
    case kit::ErrorCode::Failed:
        break;
    }
    raise(type, kit::toString(code), text);
}

void check(const kit::Status& status)
{
    if (!status)
        raise(status.getCode(), status.getText());
}

py::str toPython(const std::string& text)
{
    return py::reinterpret_steal<py::str>(
        PyUnicode_DecodeFSDefaultAndSize(text.data(), static_cast<Py_ssize_t>(text.size())));
}

py::str toPythonFourcc(std::uint32_t fourcc)
{
    return toPython(kit::toFourccText(fourcc));
}

void checkProcess(pid_t process)
{
    if (process != ::getpid())
        raise(kit::ErrorCode::NotOpen, "a stream cannot be used in a forked child");
}

py::object toPythonFormat(const kit::StreamFormat& format)
{
    return getType("Format")(getSampleType(format).name, format.rate, format.channels);
}

py::object toPythonCodec(const kit::CodecFormat& codec)
{
    const Buffer& header = codec.header;
    return getType("Codec")(
        toPythonFourcc(codec.fourcc),
        py::bytes(reinterpret_cast<const char*>(header.data()), header.size()),
        kit::getMediaCaps(codec));
}

} // namespace vlx::python
