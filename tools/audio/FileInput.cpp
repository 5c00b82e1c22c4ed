#include <cerrno>
#include <limits>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "AudioInput.hpp"
#include "ByteSource.hpp"
#include "PcmCodec.hpp"
#include "common/ExitCodes.hpp"

namespace vlx::tool
{

namespace
{

using audioUtils::PcmFormat;

PcmFormat toPcmFormat(int soundFileFormat)
{
    switch (soundFileFormat & SF_FORMAT_SUBMASK)
    {
    case SF_FORMAT_PCM_S8:
        return PcmFormat::S8;
    case SF_FORMAT_PCM_U8:
        return PcmFormat::U8;
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_ALAC_16:
    case SF_FORMAT_DWVW_12:
    case SF_FORMAT_DWVW_16:
        return PcmFormat::S16LE;
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
    case SF_FORMAT_DWVW_24:
        return PcmFormat::S24LE;
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_ALAC_32:
        return PcmFormat::S32LE;
    case SF_FORMAT_DOUBLE:
        return PcmFormat::F64LE;
    default:
        // Float, and everything lossy, whose decoders work in float.
        return PcmFormat::F32LE;
    }
}

sf_count_t readValues(SNDFILE* file, std::vector<std::int16_t>& values, sf_count_t numSamples)
{
    return ::sf_readf_short(file, values.data(), numSamples);
}

sf_count_t readValues(SNDFILE* file, std::vector<std::int32_t>& values, sf_count_t numSamples)
{
    return ::sf_readf_int(file, values.data(), numSamples);
}

sf_count_t readValues(SNDFILE* file, std::vector<float>& values, sf_count_t numSamples)
{
    return ::sf_readf_float(file, values.data(), numSamples);
}

sf_count_t readValues(SNDFILE* file, std::vector<double>& values, sf_count_t numSamples)
{
    return ::sf_readf_double(file, values.data(), numSamples);
}

[[noreturn]] void failToRead(const std::string& name, const std::string& reason)
{
    throw CommandFailure(ExitCode::Failed, "cannot read " + name + ": " + reason);
}

/// Hands bytes to libsndfile through a pipe of this process. libsndfile reads from a descriptor and
/// waits there; its end of this pipe is closed at a stop.
class PipeRelay
{
public:
    explicit PipeRelay(std::unique_ptr<ByteSource> source) : m_source(std::move(source))
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            failToRead(m_source->getName(), miscUtils::strerror_r_safe(errno));
        m_readFD = ends[0];
        m_thread = std::thread([this, writeFD = ends[1]] { copy(writeFD); });
    }

    /// @pre the reading end is closed
    ~PipeRelay()
    {
        m_thread.join();
    }

    PipeRelay(const PipeRelay&) = delete;
    PipeRelay& operator=(const PipeRelay&) = delete;

    /// @return the reading end, which the caller closes
    int getReadFD() const
    {
        return m_readFD;
    }

private:
    void copy(int writeFD)
    {
        constexpr std::size_t ChunkSize = 4096; // at most what a pipe takes whole
        unsigned char chunk[ChunkSize];
        std::size_t size = 0;
        while ((size = m_source->readSome(chunk, ChunkSize, writeFD)) > 0 &&
               ::write(writeFD, chunk, size) == static_cast<ssize_t>(size))
            ;
        ::close(writeFD);
    }

    const std::unique_ptr<ByteSource> m_source;
    int m_readFD = -1;
    std::thread m_thread;
};

class FileInput : public AudioInput
{
public:
    /// @param name  how messages call it
    /// @param file   null if it could not be opened; owned
    /// @param relay  null for a file that is read directly
    FileInput(
        std::string name,
        SNDFILE* file,
        const SF_INFO& info,
        std::unique_ptr<PipeRelay> relay = nullptr)
        : m_name(std::move(name)), m_relay(std::move(relay)), m_file(file)
    {
        if (m_file == nullptr)
            failToRead(m_name, explainRefusal());
        takeFormat(info);
    }

    ~FileInput() override
    {
        ::sf_close(m_file);
    }

    FileInput(const FileInput&) = delete;
    FileInput& operator=(const FileInput&) = delete;

    std::size_t read(Buffer& bytes, std::size_t numSamples) override
    {
        const std::size_t samplesRead = std::visit(
            [&](auto& values)
            {
                values.resize(numSamples * m_format.channels);
                const sf_count_t count =
                    readValues(m_file, values, static_cast<sf_count_t>(numSamples));
                const auto whole = static_cast<std::size_t>(count);
                values.resize(whole * m_format.channels);
                return whole;
            },
            m_values);
        encodeSamples(m_values, m_format.sampleFormat, bytes);
        return samplesRead;
    }

    bool rewind() override
    {
        return ::sf_seek(m_file, 0, SEEK_SET) == 0;
    }

    std::optional<std::uint64_t> getLength() const override
    {
        return m_length;
    }

    bool isLive() const override
    {
        return m_relay != nullptr;
    }

    std::string getProblem() const override
    {
        if (::sf_error(m_file) == SF_ERR_NO_ERROR)
            return {};
        return "cannot read on in " + m_name + ": " + ::sf_strerror(m_file);
    }

private:
    static std::string explainRefusal()
    {
        if (::sf_error(nullptr) == SF_ERR_UNRECOGNISED_FORMAT)
            return "it is no audio file of a kind that is known here; raw samples need --raw";
        return ::sf_strerror(nullptr);
    }

    void takeFormat(const SF_INFO& info)
    {
        // The stream announces the channels in one byte.
        if (info.channels > std::numeric_limits<std::uint8_t>::max())
        {
            ::sf_close(m_file);
            failToRead(
                m_name, std::to_string(info.channels) + " channels, a stream carries up to 255");
        }
        m_format.sampleFormat = toPcmFormat(info.format);
        m_format.rate = static_cast<std::uint32_t>(info.samplerate);
        m_format.channels = static_cast<std::uint32_t>(info.channels);
        m_values = makeSampleValues(m_format.sampleFormat);
        if (info.seekable != 0)
            m_length = static_cast<std::uint64_t>(info.frames);
    }

    const std::string m_name;
    const std::unique_ptr<PipeRelay> m_relay;
    SNDFILE* const m_file;
    SampleValues m_values;
    std::optional<std::uint64_t> m_length;
};

// libsndfile's own words for these cases name neither the cause nor the file.
void checkReadable(const std::string& path)
{
    struct stat status
    {
    };
    const std::string name = "\"" + path + "\"";
    if (::stat(path.c_str(), &status) != 0 || ::access(path.c_str(), R_OK) != 0)
        failToRead(name, miscUtils::strerror_r_safe(errno));
    if (S_ISDIR(status.st_mode))
        failToRead(name, miscUtils::strerror_r_safe(EISDIR));
    if (status.st_size == 0)
        failToRead(name, "it is empty");
}

} // unnamed namespace

std::unique_ptr<AudioInput> openFileInput(const std::string& path)
{
    checkReadable(path);
    SF_INFO info{};
    SNDFILE* const file = ::sf_open(path.c_str(), SFM_READ, &info);
    return std::make_unique<FileInput>("\"" + path + "\"", file, info);
}

std::unique_ptr<AudioInput> openPipedInput(std::unique_ptr<ByteSource> source)
{
    const std::string name = source->getName();
    auto relay = std::make_unique<PipeRelay>(std::move(source));
    SF_INFO info{};
    SNDFILE* const file = ::sf_open_fd(relay->getReadFD(), SFM_READ, &info, SF_TRUE);
    return std::make_unique<FileInput>(name, file, info, std::move(relay));
}

} // namespace vlx::tool
