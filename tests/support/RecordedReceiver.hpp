#pragma once

#include <audioUtils/PcmFormat.hpp>
#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>
#include <vlxkit/PromptStop.hpp>

#include "support/Recorder.hpp"

namespace vlx::testing
{

/// A receiver of PCM that writes down every callback as a line of text:
///   "connecting", "running", "idle", "failed", "sequence 48000 x2 S16LE", "ready no clock",
///   "frame 1000".
class RecordedReceiver : public Recorder
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
                                           { onCallback(toString(state)); });
        m_receiver.setConnectionAttemptFailedCallback([this] { onCallback("failed"); });
        m_receiver.setNewSequenceCallback([this](Depayloader&)
                                          { onCallback("sequence " + describeFormat()); });
        m_receiver.setReceiverIsReadyCallback(
            [this](Depayloader&, Clock clock)
            { onCallback(std::string("ready ") + toString(clock)); });
        m_receiver.setMediaDataCallback(
            [this](TimeValue timestamp, TimeValue duration, const Buffer& data)
            {
                {
                    const std::lock_guard<std::mutex> lock(m_framesMutex);
                    m_frames.push_back({timestamp, duration, data});
                }
                onCallback("frame " + std::to_string(timestamp));
            });
    }

    /// Starts at once.
    explicit RecordedReceiver(const std::string& socketName) : RecordedReceiver()
    {
        EXPECT_TRUE(start(socketName));
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
        kit::stopPromptly(m_receiver);
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

    std::vector<Frame> getFrames() const
    {
        const std::lock_guard<std::mutex> lock(m_framesMutex);
        return m_frames;
    }

private:
    std::string describeFormat() const
    {
        return std::to_string(m_depayloader.getSampleRate()) + " x" +
               std::to_string(m_depayloader.getNumChannels()) + " " +
               std::string(audioUtils::toString(m_depayloader.getSampleFormat()));
    }

    void onCallback(const std::string& event)
    {
        record(event);
        if (m_action)
            m_action(event);
    }

    mutable std::mutex m_framesMutex;
    std::vector<Frame> m_frames;
    std::function<void(const std::string&)> m_action;
    PcmDepayloader m_depayloader;
    Receiver m_receiver; // last: its threads use what stands above
};

} // namespace vlx::testing
