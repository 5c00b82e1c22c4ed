#include <algorithm>
#include <cerrno>
#include <climits>
#include <iterator>
#include <optional>
#include <string_view>

#include <poll.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "AudioOutput.hpp"
#include "OutputFile.hpp"
#include "PcmCodec.hpp"
#include "common/ExitCodes.hpp"
#include "common/StandardStreams.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

using audioUtils::PcmFormat;
using SteadyClock = std::chrono::steady_clock;

// For a reader that takes nothing any more, once a stop is asked for.
constexpr auto StopGrace = std::chrono::milliseconds(250);

// WAV has one byte order, and 8 bits without a sign only. In the order of PcmFormat.
constexpr PcmFormat WavFormats[] = {PcmFormat::U8,    PcmFormat::U8,    PcmFormat::S16LE,
                                    PcmFormat::S16LE, PcmFormat::S24LE, PcmFormat::S24LE,
                                    PcmFormat::S32LE, PcmFormat::S32LE, PcmFormat::F32LE,
                                    PcmFormat::F32LE, PcmFormat::F64LE, PcmFormat::F64LE};
static_assert(std::size(WavFormats) == audioUtils::NumPcmFormats);

/// @return the header of a WAV stream that ends when it ends
Buffer makeWavHeader(const kit::StreamFormat& format)
{
    constexpr std::uint32_t UnknownSize = 0xFFFF'FFFF;
    constexpr std::uint32_t FormatSize = 16;
    const bool isFloat =
        format.sampleFormat == PcmFormat::F32LE || format.sampleFormat == PcmFormat::F64LE;
    const std::size_t sampleBytes = format.getBytesPerSample();
    Buffer header;
    const auto addText = [&](std::string_view text)
    { header.insert(header.end(), text.begin(), text.end()); };
    const auto addNumber = [&](std::uint64_t value, std::size_t size)
    {
        for (std::size_t i = 0; i < size; ++i)
            header.push_back(static_cast<unsigned char>(value >> (8 * i)));
    };
    addText("RIFF");
    addNumber(UnknownSize, 4);
    addText("WAVEfmt ");
    addNumber(FormatSize, 4);
    addNumber(isFloat ? 3 : 1, 2);
    addNumber(format.channels, 2);
    addNumber(format.rate, 4);
    addNumber(std::min<std::uint64_t>(sampleBytes * format.rate, UnknownSize), 4);
    addNumber(sampleBytes, 2);
    addNumber(8 * audioUtils::bytesPerSample(format.sampleFormat), 2);
    addText("data");
    addNumber(UnknownSize, 4);
    return header;
}

class StreamOutput : public AudioOutput
{
public:
    StreamOutput(const std::string& path, bool asWav, const OutputWaits& waits)
        : m_file(path, waits), m_asWav(asWav), m_stop(waits.stop)
    {
    }

    bool start(const kit::StreamFormat& format) override
    {
        m_format = format;
        m_written = format;
        if (m_asWav)
            m_written.sampleFormat = WavFormats[static_cast<std::size_t>(format.sampleFormat)];
        return true;
    }

    bool write(const ByteView& bytes, TimeValue /*time*/) override
    {
        if (!m_begun && !begin())
            return false;
        if (m_written == m_format)
            return writeAll(bytes) && commit();
        decodeSamples(bytes, m_format.sampleFormat, m_values);
        encodeSamples(m_values, m_written.sampleFormat, m_converted);
        return writeAll(m_converted) && commit();
    }

    bool finish() override
    {
        return m_file.close() || fail(errno);
    }

private:
    bool fail(int errorNumber)
    {
        m_problem =
            "cannot write " + m_file.getName() + ": " + miscUtils::strerror_r_safe(errorNumber);
        return false;
    }

    bool begin()
    {
        m_begun = true;
        if (!m_file.begin())
            return fail(errno);
        return !m_asWav || writeAll(makeWavHeader(m_written));
    }

    bool commit()
    {
        return m_file.commit() || fail(errno);
    }

    bool writeAll(const ByteView& bytes)
    {
        std::size_t written = 0;
        while (written < bytes.size())
        {
            if (!m_file.isRegular() && !waitForReader())
                return false;
            // Not more than a pipe takes without blocking once it is writable.
            const std::size_t rest = bytes.size() - written;
            const std::size_t size =
                m_file.isRegular() ? rest : std::min<std::size_t>(rest, PIPE_BUF);
            const ssize_t count = ::write(m_file.getFD(), bytes.data() + written, size);
            if (count >= 0)
                written += static_cast<std::size_t>(count);
            else if (errno != EINTR && errno != EAGAIN)
                return failWrite(errno);
        }
        m_completeSize += bytes.size();
        return true;
    }

    // What did not fit may have ended inside a sample.
    bool failWrite(int errorNumber)
    {
        const std::size_t sampleBytes = m_written.getBytesPerSample();
        const std::uint64_t more = m_file.isRegular() ? m_file.getSize() - m_completeSize : 0;
        if (more % sampleBytes != 0)
            m_file.truncate(m_completeSize + more / sampleBytes * sampleBytes);
        if (m_file.getSize() > 0)
            m_file.commit();
        return fail(errorNumber);
    }

    bool waitForReader()
    {
        if (waitForEvents(m_file.getFD(), POLLOUT, m_stop) == PollResult::Ready)
            return true;
        if (!m_graceEnd)
            m_graceEnd = SteadyClock::now() + StopGrace;
        const auto rest =
            std::chrono::ceil<std::chrono::milliseconds>(*m_graceEnd - SteadyClock::now());
        pollfd entry{m_file.getFD(), POLLOUT, 0};
        if (::poll(&entry, 1, static_cast<int>(std::max<std::int64_t>(rest.count(), 0))) > 0)
            return true;
        m_problem = "nobody reads " + m_file.getName() + " any more: the rest is lost";
        return false;
    }

    OutputFile m_file;
    const bool m_asWav;
    const StopSignal& m_stop;
    kit::StreamFormat m_format;  // of the stream
    kit::StreamFormat m_written; // of the output
    SampleValues m_values;
    Buffer m_converted;
    bool m_begun = false;
    std::uint64_t m_completeSize = 0;
    std::optional<SteadyClock::time_point> m_graceEnd; // set once a stop is asked for
};

} // unnamed namespace

std::unique_ptr<AudioOutput>
openStreamOutput(const std::string& path, bool asWav, const OutputWaits& waits)
{
    if (path == "-" && wasClosed(STDOUT_FILENO))
        throw CommandFailure(ExitCode::Usage, "standard output is closed");
    if (path == "-" && ::isatty(STDOUT_FILENO) == 1)
        throw CommandFailure(
            ExitCode::Usage,
            "standard output is a terminal, and samples are no text: redirect it, or name a file");
    return std::make_unique<StreamOutput>(path, asWav, waits);
}

} // namespace vlx::tool
