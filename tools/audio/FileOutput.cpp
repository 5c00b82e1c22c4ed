#include <algorithm>
#include <cctype>
#include <cerrno>
#include <iterator>
#include <string_view>
#include <type_traits>

#include <sndfile.h>

#include <miscUtils/MiscUtils.hpp>

#include "AudioOutput.hpp"
#include "OutputFile.hpp"
#include "PcmCodec.hpp"
#include "common/ExitCodes.hpp"

namespace vlx::tool
{

namespace
{

struct FileKind
{
    std::string_view extension;
    std::string_view name;
    int container;
    int lossyCodec;     // 0: samples are kept as they are
    bool rewritable;    // the header can be brought up to date while the file grows
    bool fourGigabytes; // sizes in the header have 32 bits
};

constexpr FileKind FileKinds[] = {
    // The first one is also for files without an extension.
    {"wav", "WAV", SF_FORMAT_WAV, 0, true, true},
    {"rf64", "RF64", SF_FORMAT_RF64, 0, true, false},
    {"w64", "W64", SF_FORMAT_W64, 0, true, false},
    {"caf", "CAF", SF_FORMAT_CAF, 0, true, false},
    {"aiff", "AIFF", SF_FORMAT_AIFF, 0, true, true},
    {"aif", "AIFF", SF_FORMAT_AIFF, 0, true, true},
    {"aifc", "AIFF", SF_FORMAT_AIFF, 0, true, true},
    {"au", "AU", SF_FORMAT_AU, 0, true, true},
    {"snd", "AU", SF_FORMAT_AU, 0, true, true},
    {"flac", "FLAC", SF_FORMAT_FLAC, 0, false, false},
    {"ogg", "Ogg Vorbis", SF_FORMAT_OGG, SF_FORMAT_VORBIS, false, false},
    {"oga", "Ogg Vorbis", SF_FORMAT_OGG, SF_FORMAT_VORBIS, false, false},
    {"opus", "Ogg Opus", SF_FORMAT_OGG, SF_FORMAT_OPUS, false, false},
    {"mp3", "MP3", SF_FORMAT_MPEG, SF_FORMAT_MPEG_LAYER_III, false, false},
};

// Leaves room for the header.
constexpr std::uint64_t MaxBytesOfFourGigabytes = 0xFFFF'FFFF - 0x1'0000;

std::string toLower(std::string text)
{
    std::transform(
        text.begin(), text.end(), text.begin(),
        [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string getExtension(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    const std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return {};
    return toLower(path.substr(dot + 1));
}

bool isRawType(const std::string& type)
{
    return type == "raw" || type == "pcm";
}

/// @return nothing if the kind is not known
const FileKind* findKind(const std::string& type)
{
    for (const FileKind& kind : FileKinds)
    {
        if (type.empty() || kind.extension == type)
            return &kind;
    }
    return nullptr;
}

/// What libsndfile calls each sample format, in the order of PcmFormat.
constexpr int Subtypes[] = {SF_FORMAT_PCM_S8, SF_FORMAT_PCM_U8, SF_FORMAT_PCM_16, SF_FORMAT_PCM_16,
                            SF_FORMAT_PCM_24, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32, SF_FORMAT_PCM_32,
                            SF_FORMAT_FLOAT,  SF_FORMAT_FLOAT,  SF_FORMAT_DOUBLE, SF_FORMAT_DOUBLE};
static_assert(std::size(Subtypes) == audioUtils::NumPcmFormats);

// Many kinds know only one of the two 8-bit types. Turning one into the other loses nothing.
int toOtherEightBits(int subtype)
{
    if (subtype == SF_FORMAT_PCM_S8)
        return SF_FORMAT_PCM_U8;
    return subtype == SF_FORMAT_PCM_U8 ? SF_FORMAT_PCM_S8 : subtype;
}

/// @return whether the kind can hold the format; then info is filled
bool chooseFormat(const FileKind& kind, const kit::StreamFormat& format, SF_INFO& info)
{
    const int subtype = Subtypes[static_cast<std::size_t>(format.sampleFormat)];
    info.samplerate = static_cast<int>(format.rate);
    info.channels = static_cast<int>(format.channels);
    for (const int candidate : {subtype, toOtherEightBits(subtype)})
    {
        info.format = kind.container | (kind.lossyCodec != 0 ? kind.lossyCodec : candidate);
        if (::sf_format_check(&info) != 0)
            return true;
    }
    return false;
}

template <class Value>
sf_count_t writeValues(SNDFILE* file, const std::vector<Value>& values)
{
    const auto count = static_cast<sf_count_t>(values.size());
    if constexpr (std::is_same_v<Value, std::int16_t>)
        return ::sf_write_short(file, values.data(), count);
    else if constexpr (std::is_same_v<Value, std::int32_t>)
        return ::sf_write_int(file, values.data(), count);
    else if constexpr (std::is_same_v<Value, float>)
        return ::sf_write_float(file, values.data(), count);
    else
        return ::sf_write_double(file, values.data(), count);
}

class FileOutput : public AudioOutput
{
public:
    FileOutput(const std::string& path, const FileKind& kind, const OutputWaits& waits)
        : m_kind(kind), m_file(path, waits)
    {
    }

    ~FileOutput() override
    {
        if (m_sound != nullptr)
            ::sf_close(m_sound);
    }

    FileOutput(const FileOutput&) = delete;
    FileOutput& operator=(const FileOutput&) = delete;

    bool start(const kit::StreamFormat& format) override
    {
        m_format = format;
        return chooseFormat(m_kind, format, m_info) ||
               fail(std::string(m_kind.name) + " cannot hold " + toText(format));
    }

    bool write(const ByteView& bytes, TimeValue /*time*/) override
    {
        if (m_sound == nullptr && !begin())
            return false;
        if (m_kind.fourGigabytes && m_numBytes + bytes.size() > MaxBytesOfFourGigabytes)
            return fail("it is full: " + std::string(m_kind.name) + " files end at 4 GiB");

        if (!m_kind.rewritable)
            m_completeSize = m_file.getSize();
        decodeSamples(bytes, m_format.sampleFormat, m_values);
        const sf_count_t written =
            std::visit([&](const auto& values) { return writeValues(m_sound, values); }, m_values);
        m_numSamples += written / static_cast<sf_count_t>(m_format.channels);
        m_numBytes += bytes.size();
        if (::sf_error(m_sound) == SF_ERR_NO_ERROR)
            return m_file.commit() || fail(miscUtils::strerror_r_safe(errno));

        failInLibrary(::sf_strerror(m_sound));
        m_writeFailed = true;
        if (m_kind.rewritable)
            dropIncompleteSample();
        return false;
    }

    bool finish() override
    {
        bool ok = true;
        if (m_sound != nullptr)
        {
            const int error = ::sf_close(m_sound);
            m_sound = nullptr;
            ok = error == 0 || failInLibrary(::sf_error_number(error));
        }
        // The block that did not fit is cut off again; only now nothing is written behind it.
        if (m_writeFailed && !m_kind.rewritable)
            m_file.truncate(m_completeSize);
        if (!m_file.close())
            ok = fail(miscUtils::strerror_r_safe(errno));
        return ok;
    }

private:
    // Only with the first samples, so that a recording that gets none leaves no file.
    bool begin()
    {
        if (!m_file.begin())
            return fail(miscUtils::strerror_r_safe(errno));
        m_sound = ::sf_open_fd(m_file.getFD(), SFM_WRITE, &m_info, SF_FALSE);
        if (m_sound == nullptr)
            return failInLibrary(::sf_strerror(nullptr));

        // The chunk of peak values holds nothing that was received.
        ::sf_command(m_sound, SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
        if (m_kind.rewritable)
        {
            ::sf_command(m_sound, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
            ::sf_command(m_sound, SFC_UPDATE_HEADER_NOW, nullptr, 0);
        }
        return ::sf_error(m_sound) == SF_ERR_NO_ERROR || failInLibrary(::sf_strerror(m_sound));
    }

    bool fail(const std::string& reason)
    {
        m_problem = "cannot write " + m_file.getName() + ": " + reason;
        return false;
    }

    // libsndfile puts its own words before the system's.
    bool failInLibrary(std::string_view reason)
    {
        constexpr std::string_view SystemErrorPrefix = "System error : ";
        if (reason.starts_with(SystemErrorPrefix))
            reason.remove_prefix(SystemErrorPrefix.size());
        while (!reason.empty() && reason.back() == '.')
            reason.remove_suffix(1);
        return fail(std::string(reason));
    }

    // A write that ran out of space may have ended anywhere.
    void dropIncompleteSample()
    {
        sf_count_t numSamples = m_numSamples;
        ::sf_command(m_sound, SFC_FILE_TRUNCATE, &numSamples, sizeof(numSamples));
        ::sf_command(m_sound, SFC_UPDATE_HEADER_NOW, nullptr, 0);
    }

    const FileKind& m_kind;
    OutputFile m_file;
    SNDFILE* m_sound = nullptr;
    kit::StreamFormat m_format;
    SF_INFO m_info{};
    SampleValues m_values;
    sf_count_t m_numSamples = 0;
    std::uint64_t m_numBytes = 0;
    bool m_writeFailed = false;
    std::uint64_t m_completeSize = 0; // of the file before the last write; kinds with blocks only
};

} // unnamed namespace

std::unique_ptr<AudioOutput>
openOutput(const std::string& path, const std::string& type, const OutputWaits& waits)
{
    const bool stream = path == "-" || isSpecialFile(path);
    std::string kindName = type.empty() ? getExtension(path) : toLower(type);
    if (path == "-" && type.empty())
        kindName = "raw";
    if (isRawType(kindName) || (stream && kindName == "wav"))
        return openStreamOutput(path, kindName == "wav", waits);

    const FileKind* const kind = findKind(kindName);
    if (kind == nullptr)
        throw CommandFailure(
            ExitCode::Usage, "\"" + kindName + "\" is no kind of audio file; known are " +
                                 listOutputTypes() + ", to be named by -t or the extension");
    if (stream)
        throw CommandFailure(
            ExitCode::Failed, "cannot write \"" + path +
                                  "\": only raw samples (-t raw) or a WAV stream (-t wav) go where "
                                  "nothing can be rewritten");
    return std::make_unique<FileOutput>(path, *kind, waits);
}

std::string listOutputTypes()
{
    std::string list;
    for (const FileKind& kind : FileKinds)
        list += std::string(kind.extension) + ", ";
    return list + "raw";
}

bool isRawPath(const std::string& path)
{
    return isRawType(getExtension(path));
}

} // namespace vlx::tool
