#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "AudioOutput.hpp"
#include "PcmCodec.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/StopSignal.hpp"
#include "common/Text.hpp"

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
    bool plain;         // samples lie there one by one, behind a header that is brought up to date
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
    {"raw", "raw", SF_FORMAT_RAW, 0, true, false},
    {"pcm", "raw", SF_FORMAT_RAW, 0, true, false},
};

// Leaves room for the header.
constexpr sf_count_t MaxBytesOfFourGigabytes = 0xFFFF'FFFF - 0x1'0000;
// For a reader that takes nothing any more, once a stop is asked for.
constexpr auto StopGrace = std::chrono::milliseconds(250);

std::string toLower(std::string text)
{
    std::transform(
        text.begin(), text.end(), text.begin(),
        [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

/// @return in lower case and without the dot
std::string getExtension(const std::string& path)
{
    const std::string extension = std::filesystem::path(path).extension();
    return extension.empty() ? extension : toLower(extension.substr(1));
}

/// @param type  as the user named it; empty: by the path
/// @throws CommandFailure if the kind is not known
const FileKind& chooseKind(const std::string& path, const std::string& type)
{
    const std::string preset = path == "-" ? "raw" : getExtension(path);
    const std::string wanted = type.empty() ? preset : toLower(type);
    const auto* const found = std::find_if(
        std::begin(FileKinds), std::end(FileKinds),
        [&](const FileKind& kind) { return wanted.empty() || kind.extension == wanted; });
    if (found == std::end(FileKinds))
        throw CommandFailure(
            ExitCode::Usage, "unknown kind of audio file " + quote(wanted) + ": choose one of " +
                                 listOutputTypes() + " by -t or the extension");
    return *found;
}

/// What libsndfile calls each sample format, in the order of PcmFormat.
constexpr int Subtypes[] = {SF_FORMAT_PCM_S8, SF_FORMAT_PCM_U8, SF_FORMAT_PCM_16, SF_FORMAT_PCM_16,
                            SF_FORMAT_PCM_24, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32, SF_FORMAT_PCM_32,
                            SF_FORMAT_FLOAT,  SF_FORMAT_FLOAT,  SF_FORMAT_DOUBLE, SF_FORMAT_DOUBLE};
static_assert(std::size(Subtypes) == audioUtils::NumPcmFormats);

/// @return whether the kind can hold the format; then info is filled
bool chooseFormat(const FileKind& kind, const kit::StreamFormat& format, SF_INFO& info)
{
    const auto number = static_cast<std::size_t>(format.sampleFormat);
    const int rawOrder = number % 2 == 0 ? SF_ENDIAN_LITTLE : SF_ENDIAN_BIG; // pairs of formats
    const int container =
        kind.container | (kind.container == SF_FORMAT_RAW ? rawOrder : SF_ENDIAN_FILE);
    info.samplerate = static_cast<int>(format.rate);
    info.channels = static_cast<int>(format.channels);
    // Many kinds know only one of the two 8-bit types. Turning one into the other loses nothing.
    const std::size_t sibling = number < 2 ? 1 - number : number;
    for (const int candidate : {Subtypes[number], Subtypes[sibling]})
    {
        info.format = container | (kind.lossyCodec != 0 ? kind.lossyCodec : candidate);
        if (::sf_format_check(&info) != 0)
            return true;
    }
    return false;
}

void writeValues(SNDFILE* file, const std::vector<std::int32_t>& values)
{
    ::sf_write_int(file, values.data(), static_cast<sf_count_t>(values.size()));
}

void writeValues(SNDFILE* file, const std::vector<float>& values)
{
    ::sf_write_float(file, values.data(), static_cast<sf_count_t>(values.size()));
}

void writeValues(SNDFILE* file, const std::vector<double>& values)
{
    ::sf_write_double(file, values.data(), static_cast<sf_count_t>(values.size()));
}

/// A file, or a stream of which nothing can be rewritten. It is opened at the start, so that an
/// unwritable one is reported at once; but a file is put in place only with its first samples.
class FileOutput : public AudioOutput
{
public:
    FileOutput(
        const std::string& path,
        bool isStream,
        const FileKind& kind,
        bool overwrite,
        const OutputWaits& waits)
        : m_name(path == "-" ? "standard output" : quote(path)),
          m_isStream(isStream),
          m_kind(kind),
          m_overwrite(overwrite),
          m_stop(waits.stop)
    {
        if (path == "-")
            m_fd = STDOUT_FILENO;
        else if (isStream || !openBeside(path))
            openInPlace(path, waits.openDeadline);
    }

    ~FileOutput() override
    {
        m_sound.reset();
        close();
    }

    FileOutput(const FileOutput&) = delete;
    FileOutput& operator=(const FileOutput&) = delete;

    void start(const kit::StreamFormat& format) override
    {
        m_format = format;
        if (!chooseFormat(m_kind, format, m_info))
            fail(std::string(m_kind.name) + " cannot hold " + toText(format));
    }

    void write(const ByteView& bytes, TimeValue /*time*/) override
    {
        if (m_sound == nullptr)
            begin();
        const sf_count_t before = m_size;
        if (m_kind.fourGigabytes && !m_isStream &&
            before + static_cast<sf_count_t>(bytes.size()) > MaxBytesOfFourGigabytes)
            fail("it is full: " + std::string(m_kind.name) + " files hold at most 4 GiB");
        decodeSamples(bytes, m_format.sampleFormat, m_values);
        std::visit([&](const auto& values) { writeValues(m_sound.get(), values); }, m_values);
        if (!m_problem.empty() && !m_isStream)
            dropIncomplete(before);
        check();
        if (::sf_error(m_sound.get()) != SF_ERR_NO_ERROR)
            fail(::sf_strerror(m_sound.get()));
        commit();
    }

    void finish() override
    {
        m_isEnding = true;
        m_sound.reset();
        if (!close())
            noteError();
        check();
    }

private:
    struct Closer
    {
        void operator()(SNDFILE* file) const
        {
            ::sf_close(file);
        }
    };

    /// @return false if no new file can be made there, or the present one must not be replaced
    bool openBeside(const std::string& path)
    {
        namespace fs = std::filesystem;
        std::error_code error;
        const fs::file_status status = fs::status(path, error);
        const bool exists = fs::exists(status);
        if (exists && (!fs::is_regular_file(status) || ::access(path.c_str(), W_OK) != 0))
            return false;
        // A link stays one: what it leads to is replaced.
        m_target = exists ? fs::canonical(path, error).string() : path;
        m_written = m_target + ".part-" + std::to_string(::getpid());
        constexpr mode_t NewFileMode = 0666; // less the umask
        m_fd = ::open(
            m_written.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, NewFileMode);
        if (m_fd < 0)
            m_written.clear();
        else if (exists)
            ::fchmod(m_fd, static_cast<mode_t>(status.permissions() & fs::perms::all));
        return m_fd >= 0;
    }

    // A directory that takes no new file may hold one that can be written.
    void openInPlace(const std::string& path, const Deadline& deadline)
    {
        std::error_code error;
        const bool isNew = !m_isStream && !std::filesystem::exists(path, error);
        const int flags = O_WRONLY | (isNew ? O_CREAT | (m_overwrite ? 0 : O_EXCL) : 0);
        const PollResult result = openPatiently(path.c_str(), flags, m_stop, deadline, m_fd);
        if (result == PollResult::TimedOut)
            throw CommandFailure(
                ExitCode::TimedOut, "no program opened " + m_name + " for reading in time");
        if (m_fd < 0 && result == PollResult::Ready)
            fail(miscUtils::strerror_r_safe(errno));
    }

    // Only with the first samples, so that a recording that gets none leaves no file.
    void begin()
    {
        if (!m_isStream && ::ftruncate(m_fd, 0) != 0)
            noteError();
        if (m_isStream)
            m_header.emplace();
        SF_VIRTUAL_IO calls = {
            [](void* self) { return static_cast<FileOutput*>(self)->m_size; },
            [](sf_count_t offset, int whence, void* self)
            { return static_cast<FileOutput*>(self)->seek(offset, whence); },
            [](void*, sf_count_t, void*) { return sf_count_t{0}; },
            [](const void* data, sf_count_t size, void* self)
            {
                return static_cast<FileOutput*>(self)->writeBytes(
                    static_cast<const unsigned char*>(data), size);
            },
            [](void* self) { return static_cast<FileOutput*>(self)->m_place; }};
        m_sound.reset(::sf_open_virtual(&calls, SFM_WRITE, &m_info, this));
        check();
        if (m_sound == nullptr)
            fail(::sf_strerror(nullptr));
        // The chunk of peak values holds nothing that was received.
        ::sf_command(m_sound.get(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
        if (m_kind.plain)
        {
            ::sf_command(m_sound.get(), SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
            ::sf_command(m_sound.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
        }
        if (m_isStream)
            sendHeader();
        check();
    }

    /// Sends the header of a stream that ends when it ends: the length of the whole, which stands
    /// behind its first word, and that of the samples, which it ends with, say "unknown".
    void sendHeader()
    {
        constexpr unsigned char Unknown = 0xFF;
        Buffer header = *std::exchange(m_header, std::nullopt);
        if (header.empty())
            return;
        std::fill_n(header.begin() + 4, 4, Unknown);
        std::fill_n(header.end() - 4, 4, Unknown);
        m_place = m_size = 0;
        writeBytes(header.data(), static_cast<sf_count_t>(header.size()));
    }

    sf_count_t seek(sf_count_t offset, int whence)
    {
        const sf_count_t base = whence == SEEK_END ? m_size : m_place;
        m_place = whence == SEEK_SET ? offset : base + offset;
        return m_place;
    }

    /// @return bytes written; fewer if something is wrong, which is noted
    sf_count_t writeBytes(const unsigned char* data, sf_count_t size)
    {
        const sf_count_t end = m_place + size;
        if (m_header)
        {
            m_header->resize(static_cast<std::size_t>(std::max(m_size, end)));
            std::copy_n(data, size, m_header->begin() + m_place);
        }
        // Behind an error nothing grows, nor does a stream by what closing adds to a file.
        else if (end > m_size && (!m_problem.empty() || (m_isStream && m_isEnding)))
            return 0;
        // What has left a stream stays as it is.
        else if (end > m_size || !m_isStream)
            size = send(data, size);
        m_place += size;
        m_size = std::max(m_size, m_place);
        return size;
    }

    sf_count_t send(const unsigned char* data, sf_count_t size)
    {
        sf_count_t sent = 0;
        while (sent < size && (!m_isStream || waitForReader()))
        {
            const auto rest = static_cast<std::size_t>(size - sent);
            // To a stream not more than a pipe takes without blocking once it is writable.
            const ssize_t count =
                m_isStream ? ::write(m_fd, data + sent, std::min<std::size_t>(rest, PIPE_BUF))
                           : ::pwrite(m_fd, data + sent, rest, m_place + sent);
            if (count >= 0)
                sent += count;
            else if (errno != EINTR && errno != EAGAIN)
            {
                noteError();
                break;
            }
        }
        return sent;
    }

    bool waitForReader()
    {
        if (waitForEvents(m_fd, POLLOUT, m_stop) == PollResult::Ready)
            return true;
        if (!m_graceEnd)
            m_graceEnd = std::chrono::steady_clock::now() + StopGrace;
        const StopSignal neverStopped;
        if (waitForEvents(m_fd, POLLOUT, neverStopped, m_graceEnd) == PollResult::Ready)
            return true;
        m_problem = "the reader of " + m_name + " has stopped reading: the rest is lost";
        return false;
    }

    // A write that ran out of space may have ended anywhere. Kinds that are not plain end with the
    // last complete write, plain ones with a whole sample.
    void dropIncomplete(sf_count_t sizeBefore)
    {
        const auto sampleBytes = static_cast<sf_count_t>(m_format.getBytesPerSample());
        const sf_count_t more = m_kind.plain ? (m_size - sizeBefore) / sampleBytes : 0;
        m_size = sizeBefore + more * sampleBytes;
        [[maybe_unused]] const int result = ::ftruncate(m_fd, m_size);
        if (m_kind.plain)
            ::sf_command(m_sound.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
    }

    /// Puts the file in place, once there is something in it.
    void commit()
    {
        if (m_written.empty())
            return;
        // Another program may have made the file meanwhile. Not every file system can tell.
        const unsigned int flags = m_overwrite ? 0 : RENAME_NOREPLACE;
        if (::renameat2(AT_FDCWD, m_written.c_str(), AT_FDCWD, m_target.c_str(), flags) != 0 &&
            (errno != EINVAL || ::rename(m_written.c_str(), m_target.c_str()) != 0))
            fail(miscUtils::strerror_r_safe(errno));
        m_written.clear();
    }

    /// Closes the file, and removes it if it was never put in place.
    bool close()
    {
        const int fd = std::exchange(m_fd, -1);
        if (!m_written.empty())
            ::unlink(std::exchange(m_written, {}).c_str());
        return fd < 0 || ::close(fd) == 0;
    }

    // Nothing may be thrown through libsndfile.
    void noteError()
    {
        m_problem = "cannot write " + m_name + ": " + miscUtils::strerror_r_safe(errno);
    }

    void check() const
    {
        if (!m_problem.empty())
            throw CommandFailure(ExitCode::Failed, m_problem);
    }

    [[noreturn]] void fail(const std::string& reason) const
    {
        throw CommandFailure(ExitCode::Failed, "cannot write " + m_name + ": " + reason);
    }

    const std::string m_name; // for messages
    const bool m_isStream;
    const FileKind& m_kind;
    const bool m_overwrite;
    const StopSignal& m_stop;
    std::string m_target;  // where the file belongs
    std::string m_written; // where it is until it is committed; empty: at the target already
    int m_fd = -1;
    sf_count_t m_size = 0;
    sf_count_t m_place = 0;         // at which libsndfile is
    std::optional<Buffer> m_header; // of a stream, until it is complete
    std::unique_ptr<SNDFILE, Closer> m_sound;
    kit::StreamFormat m_format;
    SF_INFO m_info{};
    SampleValues m_values;
    bool m_isEnding = false;
    std::string m_problem; // empty while all goes well
    Deadline m_graceEnd;   // set once a stop is asked for
};

} // unnamed namespace

std::unique_ptr<AudioOutput> openOutput(
    const std::string& path,
    const std::string& type,
    bool overwrite,
    const OutputWaits& waits)
{
    namespace fs = std::filesystem;
    if (path == "-" && wasClosed(STDOUT_FILENO))
        throw CommandFailure(ExitCode::Usage, "standard output is closed");
    if (path == "-" && ::isatty(STDOUT_FILENO) == 1)
        throw CommandFailure(
            ExitCode::Usage, "standard output is a terminal: redirect it, or name a file");

    const FileKind& kind = chooseKind(path, type);
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    const bool isStream = path == "-" || (fs::exists(status) && fs::is_other(status));
    const bool isNamed = !type.empty() || !getExtension(path).empty();
    const bool isWav = isNamed && kind.container == SF_FORMAT_WAV;
    if (isStream && kind.container != SF_FORMAT_RAW && !isWav)
        throw CommandFailure(
            ExitCode::Failed, "cannot write \"" + path +
                                  "\": pipes and devices take only raw samples (-t raw) or a WAV "
                                  "stream (-t wav)");
    if (!overwrite && fs::is_regular_file(status))
        throw CommandFailure(
            ExitCode::Failed,
            "\"" + path + "\" exists: choose another name, or replace it with --overwrite");
    return std::make_unique<FileOutput>(path, isStream, kind, overwrite, waits);
}

void checkOutput(const std::string& path, const std::string& type)
{
    namespace fs = std::filesystem;
    chooseKind(path, type);
    std::error_code error;
    fs::path directory = fs::absolute(path, error).parent_path();
    while (directory.has_relative_path() && !fs::exists(directory, error))
        directory = directory.parent_path(); // what is missing is made
    if (::access(directory.c_str(), W_OK | X_OK) != 0)
        throw CommandFailure(
            ExitCode::Failed, "cannot write \"" + path + "\": no file can be created in \"" +
                                  directory.string() + "\": " + miscUtils::strerror_r_safe(errno));
}

std::string listOutputTypes()
{
    std::string list;
    for (const FileKind& kind : FileKinds)
        list += (list.empty() ? "" : ", ") + std::string(kind.extension);
    return list;
}

bool isRawPath(const std::string& path)
{
    const std::string extension = getExtension(path);
    return extension == "raw" || extension == "pcm";
}

} // namespace vlx::tool
