#pragma once

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <audioUtils/PcmFormat.hpp>
#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>

#include "support/VlxTest.hpp"

namespace vlx::testing
{

/// A receiver of PCM that writes down every callback as a line of text:
///   "connecting", "running", "idle", "failed", "sequence 48000 x2 S16LE", "ready no clock",
///   "frame 1000".
class RecordedReceiver
{
public:
    struct Frame
    {
        TimeValue timestamp;
        TimeValue duration;
        Buffer data;

        bool operator==(const Frame&) const = default;
    };

    RecordedReceiver()
    {
        using Clock = Receiver::StreamClockType;
        m_receiver.addDepayloader(m_depayloader);
        m_receiver.setStateChangedCallback([this](Receiver::State state)
                                           { record(toString(state)); });
        m_receiver.setConnectionAttemptFailedCallback([this] { record("failed"); });
        m_receiver.setNewSequenceCallback([this](Depayloader& depayloader)
                                          { record("sequence " + describe(depayloader)); });
        m_receiver.setReceiverIsReadyCallback([this](Depayloader&, Clock clock)
                                              { record(std::string("ready ") + toString(clock)); });
        m_receiver.setMediaDataCallback(
            [this](TimeValue timestamp, TimeValue duration, const Buffer& data)
            {
                {
                    const std::lock_guard<std::mutex> lock(m_mutex);
                    m_frames.push_back({timestamp, duration, data});
                }
                record("frame " + std::to_string(timestamp));
            });
    }

    ~RecordedReceiver()
    {
        stop();
    }

    RecordedReceiver(const RecordedReceiver&) = delete;
    RecordedReceiver& operator=(const RecordedReceiver&) = delete;

    bool start(const std::string& socketName)
    {
        return m_receiver.initializeReceiver(socketName);
    }

    void stop()
    {
        shutdownPromptly(m_receiver);
    }

    /// Has an action run in each callback, on the thread that makes it. Before start().
    void onEvent(std::function<void(const std::string&)> action)
    {
        m_action = std::move(action);
    }

    Receiver& get()
    {
        return m_receiver;
    }

    std::vector<std::string> getEvents() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }

    std::vector<Frame> getFrames() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_frames;
    }

    void forgetEvents()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_events.clear();
        m_frames.clear();
    }

    /// @return how many events begin so
    std::size_t count(const std::string& beginning) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<std::size_t>(std::count_if(
            m_events.begin(), m_events.end(),
            [&beginning](const std::string& event) { return event.starts_with(beginning); }));
    }

    /// @return failure if so many events that begin so did not come before the deadline
    ::testing::AssertionResult
    waitForEvent(const std::string& beginning, std::size_t times = 1) const
    {
        if (waitFor([&] { return count(beginning) >= times; }))
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "not " << times << " times \"" << beginning
                                             << "\" in " << ::testing::PrintToString(getEvents());
    }

private:
    static std::string describe(const Depayloader& depayloader)
    {
        const auto& pcm = dynamic_cast<const PcmDepayloader&>(depayloader);
        return std::to_string(pcm.getSampleRate()) + " x" + std::to_string(pcm.getNumChannels()) +
               " " + std::string(audioUtils::toString(pcm.getSampleFormat()));
    }

    void record(const std::string& event)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_events.push_back(event);
        }
        if (m_action)
            m_action(event);
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_events;
    std::vector<Frame> m_frames;
    std::function<void(const std::string&)> m_action;
    PcmDepayloader m_depayloader;
    Receiver m_receiver; // last: its threads use what stands above
};

} // namespace vlx::testing
