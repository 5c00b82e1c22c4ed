#include <memory>
#include <variant>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Media.hpp>

#include "Support.hpp"

namespace vlx::python
{

namespace
{

using Frame = kit::ReceivedFrame;

const kit::StreamFormat& getFormat(const Frame& frame)
{
    const auto* const format = std::get_if<kit::StreamFormat>(frame.format.get());
    if (format == nullptr)
        raise(kit::ErrorCode::InvalidArgument, "the stream is not PCM: use Frame.data instead");
    return *format;
}

py::object getCodec(const Frame& frame)
{
    const auto* const codec = std::get_if<kit::CodecFormat>(frame.format.get());
    return codec != nullptr ? toPythonCodec(*codec) : py::none();
}

py::array makeReadOnly(py::array array)
{
    array.attr("setflags")(py::arg("write") = false);
    return array;
}

py::array getSamples(const py::object& self)
{
    const auto& frame = self.cast<const Frame&>();
    const Buffer& data = frame.data;
    return makeReadOnly(makeArray(getFormat(frame), data.data(), data.size(), self));
}

/// @param bytes  part of the frame
py::array makeBytes(const ByteView& bytes, const py::object& frame)
{
    const auto size = static_cast<py::ssize_t>(bytes.size());
    return makeReadOnly(py::array(py::dtype("u1"), {size}, bytes.data(), frame));
}

py::array getData(const py::object& self)
{
    return makeBytes(self.cast<const Frame&>().data, self);
}

/// @return presentation time; not set if unknown or out of range
std::optional<TimeValue> getPts(TimeValue timestamp, const kit::MediaHead& head)
{
    if (!head.ptsOffsetNs)
        return std::nullopt;
    const TimeValue pts = timestamp + static_cast<TimeValue>(*head.ptsOffsetNs);
    const bool wraps = (pts < timestamp) != (*head.ptsOffsetNs < 0);
    return wraps ? std::nullopt : std::optional(pts);
}

py::object getMedia(const py::object& self)
{
    const auto& frame = self.cast<const Frame&>();
    const auto* const codec = std::get_if<kit::CodecFormat>(frame.format.get());
    if (codec == nullptr || !kit::getMediaCaps(*codec))
        return py::none();
    const auto media = kit::parseMediaFrame(frame.data);
    if (!media)
        return py::none();
    const kit::MediaHead& head = media->head;
    return getType("Media")(
        getType("MediaFlags")(head.flags), getPts(frame.timestamp, head), head.offset, head.number,
        makeBytes(media->data, self));
}

const char* getClock(const Frame& frame)
{
    using Type = Receiver::StreamClockType;
    switch (frame.clock)
    {
    case Type::Undetermined:
    case Type::NoClock:
        break;
    case Type::MonotonicSystemClock:
        return "monotonic";
    case Type::SyncedNetClock:
        return "network";
    }
    return "none";
}

std::string describe(const py::object& self)
{
    const auto& frame = self.cast<const Frame&>();
    const auto* const format = std::get_if<kit::StreamFormat>(frame.format.get());
    return py::str("<vellox.Frame {} ns, {} bytes, {}>")
        .format(
            frame.timestamp, frame.data.size(),
            format != nullptr ? toPythonFormat(*format) : getCodec(frame));
}

void addStamps(py::class_<Frame>& type)
{
    type.def_property_readonly(
            "timestamp", [](const Frame& frame) { return frame.timestamp; },
            "Time of the first sample on the stream's clock, nanoseconds.")
        .def_property_readonly(
            "duration", [](const Frame& frame) { return frame.duration; },
            "Length of the frame, nanoseconds.")
        .def_property_readonly(
            "gap", [](const Frame& frame) { return frame.gapNs; },
            "Nanoseconds from the end of the previous frame to this one: positive if media is\n"
            "missing, negative if the frames overlap, 0 within a small jitter.")
        .def_property_readonly(
            "is_first", [](const Frame& frame) { return frame.isFirst; },
            "Whether this is the first frame of a connection, a format or a codec header.")
        .def_property_readonly(
            "dropped", [](const Frame& frame) { return frame.numDropped; },
            "Frames dropped directly before this one because the queue was full.")
        .def_property_readonly(
            "arrival", [](const Frame& frame) { return frame.arrival; },
            "Time of arrival, nanoseconds of time.monotonic_ns().")
        .def_property_readonly(
            "monotonic_time", [](const Frame& frame) { return frame.getMonotonicTime(); },
            "The timestamp converted to time.monotonic_ns(), nanoseconds; None while the stream's\n"
            "clock is unknown.")
        .def_property_readonly(
            "clock", getClock, "Clock of the timestamp: \"monotonic\", \"network\" or \"none\".");
}

} // unnamed namespace

void addFrame(py::module_& module)
{
    py::class_<Frame> type(
        module, "Frame",
        "One frame of a stream. Its memory lives as long as the frame or any view of it.\n"
        "Timestamps and durations are integers in nanoseconds.");
    type.def_property_readonly(
            "samples", getSamples,
            "The samples, without a copy: a read-only array of shape (samples, channels) in the\n"
            "stream's own format and byte order. Packed 24-bit samples are uint8 of shape\n"
            "(samples, channels, 3). Raises InvalidArgument if the stream is not PCM.")
        .def_property_readonly(
            "data", getData, "The bytes, without a copy: a read-only uint8 array of one dimension.")
        .def(
            "to_float",
            [](const Frame& frame)
            {
                const Buffer& data = frame.data;
                return toFloat(getFormat(frame), data.data(), data.size());
            },
            "Returns a copy as float32 of shape (samples, channels), full scale at 1. Raises\n"
            "InvalidArgument if the stream is not PCM.")
        .def(
            "to_int32",
            [](const Frame& frame)
            {
                const Buffer& data = frame.data;
                return toInt32(getFormat(frame), data.data(), data.size());
            },
            "Returns a copy as int32 of shape (samples, channels), full scale at 2**31: a 24-bit\n"
            "value is multiplied by 256. Floats are rounded and clipped. Raises InvalidArgument "
            "if\n"
            "the stream is not PCM.")
        .def_property_readonly(
            "format", [](const Frame& frame) { return toPythonFormat(getFormat(frame)); },
            "The Format. Raises InvalidArgument if the stream is not PCM.")
        .def_property_readonly("codec", getCodec, "The Codec; None for PCM.")
        .def_property_readonly(
            "media", getMedia, "The Media, if the stream has caps; None for other streams.")
        .def("__repr__", describe);
    addStamps(type);
}

} // namespace vlx::python
