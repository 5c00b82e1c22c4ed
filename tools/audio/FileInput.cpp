#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <string_view>
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

/// What libsndfile reads of a source that gives its bytes once. What lies before the samples may be
/// jumped over. To look behind them it jumps over the samples too, sees that nothing is there, and
/// comes back.
class OneWayFile
{
public:
    explicit OneWayFile(ByteSource& source) : m_source(source) {}

    SNDFILE* open(SF_INFO& info)
    {
        SF_VIRTUAL_IO calls = {
            [](void*) { return std::numeric_limits<sf_count_t>::max() / 2; }, // long enough
            [](sf_count_t offset, int whence, void* file)
            { return static_cast<OneWayFile*>(file)->seek(offset, whence); },
            [](void* data, sf_count_t size, void* file) {
                return static_cast<OneWayFile*>(file)->read(
                    static_cast<unsigned char*>(data), size);
            },
            nullptr, [](void* file) { return static_cast<OneWayFile*>(file)->m_place; }};
        SNDFILE* const file = ::sf_open_virtual(&calls, SFM_READ, &info, this);
        // From the samples on there is no way back.
        Buffer header(std::min(static_cast<std::size_t>(m_place), m_source.peek(0).size()));
        m_source.read(header.data(), header.size());
        m_isOpen = true;
        return file;
    }

private:
    sf_count_t seek(sf_count_t offset, int whence)
    {
        if (m_isOpen || whence == SEEK_END)
            return -1;
        m_atSamples = m_atSamples || isBehindDataMark();
        m_place = std::max<sf_count_t>(whence == SEEK_CUR ? m_place + offset : offset, 0);
        return m_place;
    }

    sf_count_t read(unsigned char* data, sf_count_t size)
    {
        const auto wanted = static_cast<std::size_t>(size);
        if (m_isOpen)
            return static_cast<sf_count_t>(m_source.read(data, wanted));
        const auto place = static_cast<std::size_t>(m_place);
        if (place > (m_atSamples ? m_source.peek(0).size() : LongestHeader))
            return 0;
        const std::string_view known = m_source.peek(place + wanted);
        if (place > known.size())
            return 0;
        const std::size_t count = std::min(wanted, known.size() - place);
        std::copy_n(known.begin() + m_place, count, data);
        m_place += static_cast<sf_count_t>(count);
        return static_cast<sf_count_t>(count);
    }

    /// @return whether the samples begin here: behind their chunk's name and length
    bool isBehindDataMark() const
    {
        constexpr std::string_view Mark = "data";
        constexpr std::size_t Distance = Mark.size() + sizeof(std::uint32_t);
        const std::string_view known = m_source.peek(0);
        const auto place = static_cast<std::size_t>(m_place);
        return place >= Distance && place <= known.size() &&
               known.substr(place - Distance, Mark.size()) == Mark;
    }

    // Pictures and the like stand before the samples.
    static constexpr std::size_t LongestHeader = 16 << 20;

    ByteSource& m_source;
    sf_count_t m_place = 0; // while the header is read
    bool m_atSamples = false;
    bool m_isOpen = false;
};

class FileInput : public AudioInput
{
public:
    FileInput(std::unique_ptr<ByteSource> source, const std::string& path)
        : m_source(std::move(source)), m_oneWay(*m_source)
    {
        m_isLive = path == "-" || !m_source->isFile();
        const std::string name = m_source->getName();
        if (m_source->isFile() && m_source->getSize() == 0)
            failToRead(name, "it is empty");
        SF_INFO info{};
        m_file.reset(m_isLive ? m_oneWay.open(info) : ::sf_open(path.c_str(), SFM_READ, &info));
        if (m_file == nullptr)
            failToRead(name, explainRefusal());
        // The stream announces the channels in one byte.
        if (info.channels > std::numeric_limits<std::uint8_t>::max())
            failToRead(
                name, std::to_string(info.channels) + " channels, a stream carries up to 255");
        m_format = {
            toPcmFormat(info.format), static_cast<std::uint32_t>(info.samplerate),
            static_cast<std::uint32_t>(info.channels)};
        m_values = makeSampleValues(m_format.sampleFormat);
        if (m_isLive && info.frames == 0)
            failToRead(name, "its header says that no samples follow");
        if (!m_isLive && info.seekable != 0)
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
        if (m_problem.empty())
            m_problem = m_source->getProblem();
        if (m_problem.empty() && ::sf_error(m_file.get()) != SF_ERR_NO_ERROR)
            m_problem =
                "cannot read on in " + m_source->getName() + ": " + ::sf_strerror(m_file.get());
        return samplesRead;
    }

    bool rewind() override
    {
        return !m_isLive && ::sf_seek(m_file.get(), 0, SEEK_SET) == 0;
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
            return "it is no audio file of a kind that is known here; raw samples need --raw";
        return ::sf_strerror(nullptr);
    }

    const std::unique_ptr<ByteSource> m_source;
    OneWayFile m_oneWay;
    std::unique_ptr<SNDFILE, Closer> m_file;
    SampleValues m_values;
};

} // unnamed namespace

std::unique_ptr<AudioInput>
openSoundInput(std::unique_ptr<ByteSource> source, const std::string& path)
{
    return std::make_unique<FileInput>(std::move(source), path);
}

} // namespace vlx::tool
