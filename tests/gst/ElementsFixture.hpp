#pragma once

/// What the tests of the elements share.

#include <cstdint>
#include <cstdlib>

#include <unistd.h>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxSender.hpp>
#include <vlxkit/Media.hpp>
#include <vlxkit/Producer.hpp>

#include "gst/Pipeline.hpp"

namespace vlx::testing
{

inline constexpr std::int64_t Millisecond = 1'000'000;

/// Not the library's fixture: GStreamer keeps threads and descriptors of its own.
class ElementsTest : public ::testing::Test
{
protected:
    ElementsTest()
    {
        ::setenv("TMPDIR", ::mkdtemp(m_directory.data()), 1);
        gst_init(nullptr, nullptr);
    }

    ~ElementsTest() override
    {
        std::filesystem::remove_all(m_directory);
    }

    /// @param before  elements before the sink
    /// @return description of a sender of noise in real time
    std::string makeSender(
        const std::string& properties,
        int rate = 48000,
        const std::string& before = {}) const
    {
        return "audiotestsrc is-live=true wave=white-noise samplesperbuffer=" +
               std::to_string(rate / 100) +
               " ! audio/x-raw,format=S16LE,rate=" + std::to_string(rate) + ",channels=2 ! " +
               before + "vlxsink name=sink socket-name=" + m_name + " " + properties;
    }

    std::string makeReceiver(const std::string& properties = {}) const
    {
        return "vlxsrc name=src socket-name=" + m_name + " " + properties +
               " ! appsink name=out sync=false";
    }

    std::string m_directory = "/tmp/vg-XXXXXX";
    const std::string m_name = "gst-test-" + std::to_string(::getpid());
};

/// A sender of PCM or any media that checks nothing of what it sends. In pipeline mode, so that
/// nothing is lost to a receiver that is started after it.
class UncheckedSender
{
public:
    explicit UncheckedSender(const std::string& name, std::uint32_t channels = 2)
    {
        m_payloader.setNewFormat(48000, channels, audioUtils::PcmFormat::S16LE);
        start(name, m_payloader);
    }

    UncheckedSender(const std::string& name, const std::string& caps)
        : m_mediaPayloader(kit::MediaFourcc, Buffer(caps.begin(), caps.end()))
    {
        start(name, m_mediaPayloader);
    }

    void send(TimeValue timestamp, TimeValue duration, std::size_t bytes)
    {
        send(timestamp, duration, Buffer(bytes, 1));
    }

    void send(TimeValue timestamp, TimeValue duration, const Buffer& data)
    {
        m_sender.sendMediaData(timestamp, duration, data);
    }

    /// Frees a send that blocks; nothing is sent any more.
    void stop()
    {
        m_sender.disableSend(true);
    }

private:
    void start(const std::string& name, Payloader& payloader)
    {
        m_sender.setCurrentPayloader(payloader);
        EXPECT_TRUE(m_sender.initializeSender(
            name, "", "", 0, TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::Pipeline));
        m_sender.startNewSequence();
    }

    PcmPayloader m_payloader;
    kit::PlainPayloader m_mediaPayloader{kit::MediaFourcc, {}};
    Sender m_sender;
};

inline std::size_t countEntries(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// Identifies each frame by its random data. Omits frames that were due before their pipeline began:
// they become due at its beginning.
using Frames = std::map<std::string, Received>;

// Of a stream that brings none of those that are wanted.
inline constexpr int MaxPulls = 1000;

/// @param others  not null: only frames that are among these count
inline Frames
pullFrames(const Pipeline& receiver, std::size_t count, const Frames* others = nullptr)
{
    Frames frames;
    for (int left = MaxPulls; frames.size() < count; --left)
    {
        const auto frame = receiver.pull();
        if (!frame || left == 0)
        {
            ADD_FAILURE() << "only " << frames.size() << " frames";
            break;
        }
        if (frame->runningTime != 0 && (others == nullptr || others->contains(frame->data)))
            frames.emplace(frame->data, *frame);
    }
    return frames;
}

/// @param difference  of the due times of a frame that both have, the second less the first
inline void forEachCommonFrame(
    const Frames& first,
    const Frames& second,
    const std::function<void(std::int64_t difference)>& check)
{
    std::size_t common = 0;
    for (const auto& [data, frame] : first)
    {
        const auto same = second.find(data);
        if (same == second.end())
            continue;
        ++common;
        check(static_cast<std::int64_t>(same->second.due - frame.due));
    }
    EXPECT_GT(common, 0U);
}

} // namespace vlx::testing
