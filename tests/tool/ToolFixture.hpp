#pragma once

// What the tests of the tool share: its files, and how it is called.

#include <nlohmann/json.hpp>
#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/OpenSender.hpp"
#include "support/VlxTest.hpp"
#include "tool/ToolProcess.hpp"

namespace vlx::testing
{

namespace fs = std::filesystem;
using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr int Rate = 48000;
constexpr sf_count_t SourceSamples = Rate / 10;

/// What a file says about itself, and its values: exact for every lossless kind.
struct Sound
{
    SF_INFO info{};
    std::vector<double> values;
};

inline Sound readSound(const std::string& path)
{
    Sound sound;
    SNDFILE* const file = ::sf_open(path.c_str(), SFM_READ, &sound.info);
    EXPECT_NE(file, nullptr) << path;
    if (file == nullptr)
        return sound;
    std::vector<double> chunk(static_cast<std::size_t>(1024 * sound.info.channels));
    sf_count_t count = 0;
    while ((count = ::sf_readf_double(file, chunk.data(), 1024)) > 0)
        sound.values.insert(
            sound.values.end(), chunk.begin(), chunk.begin() + count * sound.info.channels);
    EXPECT_EQ(::sf_error(file), SF_ERR_NO_ERROR) << path;
    ::sf_close(file);
    return sound;
}

/// Makes a file of noise that uses every bit of the format.
inline void writeNoise(const std::string& path, int format, int channels)
{
    SF_INFO info{};
    info.samplerate = Rate;
    info.channels = channels;
    info.format = format;
    SNDFILE* const file = ::sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << path << ": " << ::sf_strerror(nullptr);
    std::vector<double> values(static_cast<std::size_t>(SourceSamples * channels));
    std::uint32_t noise = 1;
    for (double& value : values)
    {
        noise = noise * 1664525 + 1013904223;
        value = (static_cast<double>(noise) / 0x8000'0000U - 1) * 0.999;
    }
    ASSERT_EQ(::sf_writef_double(file, values.data(), SourceSamples), SourceSamples);
    ASSERT_EQ(::sf_close(file), 0);
}

inline std::string readText(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

inline json readJson(const std::string& path)
{
    return json::parse(readText(path), nullptr, false);
}

inline Arguments join(Arguments first, const Arguments& rest)
{
    first.insert(first.end(), rest.begin(), rest.end());
    return first;
}

/// @return the id of a process that has just ended; new processes get the next ids
inline pid_t findLatestProcess()
{
    const pid_t process = ::fork();
    if (process == 0)
        ::_exit(0);
    ::waitpid(process, nullptr, 0);
    return process;
}

/// A codec that the tool does not know.
class OpusPayloader : public Payloader
{
public:
    OpusPayloader() : Payloader(0x5355504F) {} // "OPUS"
};

class ToolTest : public VlxTest
{
protected:
    void SetUp() override
    {
        VlxTest::SetUp();
        ::signal(SIGPIPE, SIG_IGN);
        m_files = getTempDirectory() + "/files";
        fs::create_directory(m_files);
    }

    void TearDown() override
    {
        // What a killed sender leaves behind is its own affair.
        for (const std::string& name : listTempDirectory())
        {
            if (m_senderWasKilled || name == "files")
                fs::remove_all(getTempDirectory() + "/" + name);
        }
        VlxTest::TearDown();
    }

    std::string file(const std::string& name) const
    {
        return m_files + "/" + name;
    }

    Arguments send(const Arguments& more) const
    {
        return join({"send", "-s", getSocketName()}, more);
    }

    Arguments receive(const Arguments& more) const
    {
        return join({"receive", "-s", getSocketName()}, more);
    }

    /// Sends to a receiver until both have ended. In a pipeline nothing is lost, however busy the
    /// machine is.
    ///
    /// @return the receiver's output, and the errors of both
    ToolText transfer(
        const Arguments& input,
        const Arguments& output,
        const ToolSettings& settings = {}) const
    {
        ToolProcess receiver(receive(join(output, {"--oneshot"})));
        ToolProcess sender(send(join(input, {"--protocol", "pipeline"})), settings);
        EXPECT_EQ(sender.wait(), 0) << sender.getErrors();
        EXPECT_EQ(receiver.wait(), 0) << receiver.getErrors();
        return {receiver.getOutput(), sender.getErrors() + receiver.getErrors()};
    }

    /// Runs the tool to an end that it explains in one line.
    static void expectRefusal(
        const Arguments& arguments,
        int code,
        const std::string& message,
        const ToolSettings& settings = {})
    {
        SCOPED_TRACE(message);
        const auto [output, errors] = runTool(arguments, code, settings);
        EXPECT_THAT(errors, HasSubstr(message));
        EXPECT_EQ(countLines(errors), 1U) << errors;
        EXPECT_EQ(output, "");
    }

    /// Opens the test's directories to another user.
    ///
    /// @return settings for a tool of that user; not set where there can be none
    std::optional<ToolSettings> letAnotherUserIn() const
    {
        ToolSettings settings;
        settings.asUser = 65534; // nobody
        fs::permissions(getTempDirectory(), fs::perms::all | fs::perms::sticky_bit);
        fs::permissions(m_files, fs::perms::all);
        if (::geteuid() != 0 || ToolProcess({"--version"}, settings).wait() != 0)
            return std::nullopt;
        return settings;
    }

    /// Waits until the tool has printed a text on standard error.
    static bool waitForText(const ToolProcess& process, const std::string& text)
    {
        return waitFor([&] { return process.getErrors().find(text) != std::string::npos; });
    }

    /// Waits until a recording has grown to this size.
    static bool waitForSize(
        const std::string& path,
        std::uintmax_t size,
        std::chrono::milliseconds deadline = DefaultDeadline)
    {
        return waitFor(
            [&]
            {
                std::error_code error;
                const std::uintmax_t now = fs::file_size(path, error);
                return !error && now >= size;
            },
            deadline);
    }

    std::string m_files;
    bool m_senderWasKilled = false;
};

} // namespace vlx::testing
