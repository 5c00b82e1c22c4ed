#include <cerrno>
#include <limits>

#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "AudioInput.hpp"
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

[[noreturn]] void failToRead(const std::string& path, const std::string& reason)
{
    throw CommandFailure(ExitCode::Failed, "cannot read \"" + path + "\": " + reason);
}

class FileInput : public AudioInput
{
public:
    explicit FileInput(const std::string& path) : m_path(path)
    {
        checkReadable();
        SF_INFO info{};
        m_file = ::sf_open(path.c_str(), SFM_READ, &info);
        if (m_file == nullptr)
            failToRead(path, ::sf_strerror(nullptr));
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

    std::string getProblem() const override
    {
        if (::sf_error(m_file) == SF_ERR_NO_ERROR)
            return {};
        return "cannot read on in \"" + m_path + "\": " + ::sf_strerror(m_file);
    }

private:
    // libsndfile's own words for these cases name neither the cause nor the file.
    void checkReadable() const
    {
        struct stat status
        {
        };
        if (::stat(m_path.c_str(), &status) != 0 || ::access(m_path.c_str(), R_OK) != 0)
            failToRead(m_path, miscUtils::strerror_r_safe(errno));
        if (S_ISDIR(status.st_mode))
            failToRead(m_path, miscUtils::strerror_r_safe(EISDIR));
    }

    void takeFormat(const SF_INFO& info)
    {
        // The stream announces the channels in one byte.
        if (info.channels > std::numeric_limits<std::uint8_t>::max())
        {
            ::sf_close(m_file);
            failToRead(
                m_path, std::to_string(info.channels) + " channels, a stream carries up to 255");
        }
        m_format.sampleFormat = toPcmFormat(info.format);
        m_format.rate = static_cast<std::uint32_t>(info.samplerate);
        m_format.channels = static_cast<std::uint32_t>(info.channels);
        m_values = makeSampleValues(m_format.sampleFormat);
    }

    const std::string m_path;
    SNDFILE* m_file = nullptr;
    SampleValues m_values;
};

} // unnamed namespace

std::unique_ptr<AudioInput> openFileInput(const std::string& path)
{
    return std::make_unique<FileInput>(path);
}

} // namespace vlx::tool
