#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <utility>

#include <sndfile.h>

#include "AudioInput.hpp"
#include "ByteSource.hpp"
#include "PcmCodec.hpp"

namespace vlx::tool
{

namespace
{

using audioUtils::PcmFormat;

/// Which format holds what a file keeps bit for bit.
constexpr std::pair<int, PcmFormat> ExactFormats[] = {
    {SF_FORMAT_PCM_S8, PcmFormat::S8},     {SF_FORMAT_PCM_U8, PcmFormat::U8},
    {SF_FORMAT_PCM_16, PcmFormat::S16LE},  {SF_FORMAT_PCM_24, PcmFormat::S24LE},
    {SF_FORMAT_PCM_32, PcmFormat::S32LE},  {SF_FORMAT_ALAC_16, PcmFormat::S16LE},
    {SF_FORMAT_ALAC_20, PcmFormat::S24LE}, {SF_FORMAT_ALAC_24, PcmFormat::S24LE},
    {SF_FORMAT_ALAC_32, PcmFormat::S32LE}, {SF_FORMAT_DWVW_12, PcmFormat::S16LE},
    {SF_FORMAT_DWVW_16, PcmFormat::S16LE}, {SF_FORMAT_DWVW_24, PcmFormat::S24LE},
    {SF_FORMAT_DOUBLE, PcmFormat::F64LE}};

PcmFormat toPcmFormat(int soundFileFormat)
{
    const auto* const found = std::find_if(
        std::begin(ExactFormats), std::end(ExactFormats),
        [&](const auto& each) { return each.first == (soundFileFormat & SF_FORMAT_SUBMASK); });
    // Float, and everything lossy, whose decoders work in float.
    return found == std::end(ExactFormats) ? PcmFormat::F32LE : found->second;
}

sf_count_t readValues(SNDFILE* file, std::vector<std::int32_t>& values)
{
    return ::sf_read_int(file, values.data(), static_cast<sf_count_t>(values.size()));
}

sf_count_t readValues(SNDFILE* file, std::vector<float>& values)
{
    return ::sf_read_float(file, values.data(), static_cast<sf_count_t>(values.size()));
}

sf_count_t readValues(SNDFILE* file, std::vector<double>& values)
{
    return ::sf_read_double(file, values.data(), static_cast<sf_count_t>(values.size()));
}

class FileInput : public AudioInput
{
public:
    FileInput(const ByteSource& source, const std::string& path) : m_name(source.getName())
    {
        if (source.getSize() == 0)
            failToRead(m_name, "it is empty");
        SF_INFO info{};
        m_file.reset(::sf_open(path.c_str(), SFM_READ, &info));
        if (m_file == nullptr)
            failToRead(m_name, explainRefusal());
        // The stream announces the channels in one byte.
        if (info.channels > std::numeric_limits<std::uint8_t>::max())
            failToRead(
                m_name, std::to_string(info.channels) + " channels; a stream carries at most 255");
        m_format = {
            toPcmFormat(info.format), static_cast<std::uint32_t>(info.samplerate),
            static_cast<std::uint32_t>(info.channels)};
        m_values = makeSampleValues(m_format.sampleFormat);
        if (info.seekable != 0)
            m_length = static_cast<std::uint64_t>(info.frames);
    }

    std::size_t read(Buffer& bytes, std::size_t numSamples) override
    {
        const std::size_t channels = m_format.channels;
        const std::size_t samplesRead = std::visit(
            [&](auto& values)
            {
                values.resize(numSamples * channels);
                values.resize(static_cast<std::size_t>(readValues(m_file.get(), values)));
                return values.size() / channels;
            },
            m_values);
        encodeSamples(m_values, m_format.sampleFormat, bytes);
        if (m_problem.empty() && ::sf_error(m_file.get()) != SF_ERR_NO_ERROR)
            m_problem = "cannot continue reading " + m_name + ": " + ::sf_strerror(m_file.get());
        return samplesRead;
    }

    bool rewind() override
    {
        return ::sf_seek(m_file.get(), 0, SEEK_SET) == 0;
    }

private:
    struct Closer
    {
        void operator()(SNDFILE* file) const
        {
            ::sf_close(file);
        }
    };

    static std::string explainRefusal()
    {
        if (::sf_error(nullptr) == SF_ERR_UNRECOGNISED_FORMAT)
            return "unknown kind of audio file; for raw samples, add --raw";
        return ::sf_strerror(nullptr);
    }

    const std::string m_name; // for messages
    std::unique_ptr<SNDFILE, Closer> m_file;
    SampleValues m_values;
};

} // unnamed namespace

std::unique_ptr<AudioInput> openSoundInput(const ByteSource& source, const std::string& path)
{
    return std::make_unique<FileInput>(source, path);
}

} // namespace vlx::tool
