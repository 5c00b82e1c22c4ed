#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <poll.h>
#include <sched.h>
#include <sys/types.h>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/Logging.hpp>
#include <vlxkit/StreamFormat.hpp>

#include "Settings.hpp"

namespace vlx::alsa
{

constexpr unsigned int MaxChannels = 64;

/// One open PCM: the buffer between the program and a thread of the plugin, with the callbacks of
/// ALSA's I/O plugin interface. Playback and capture say what the thread does.
///
/// The program's side runs in ALSA's callbacks, one at a time. Positions count samples since the
/// last prepare, so sample n lies in the buffer at n modulo its size.
class Device
{
public:
    virtual ~Device();

    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    /// Creates the PCM, which owns the device from then on.
    ///
    /// @param format  the only one that is offered; not set: all
    /// @return 0 or a negative error number
    static int open(
        std::unique_ptr<Device> device,
        snd_pcm_t** pcm,
        const char* name,
        int mode,
        const std::optional<kit::StreamFormat>& format);

protected:
    Device(Settings settings, snd_pcm_stream_t stream);

    /// Prepares the stream; called without the lock.
    ///
    /// @return 0 or a negative error number
    virtual int onPrepare()
    {
        return 0;
    }
    /// Begins to play or to record, also after a pause; called with the lock.
    ///
    /// @return 0 or a negative error number
    virtual int onStart() = 0;
    /// @return samples between the program's position and the stream's present one
    virtual snd_pcm_sframes_t getDelay() = 0;
    /// Waits until everything was played.
    virtual int drain()
    {
        return 0;
    }
    /// Makes the thread end, and closes the stream.
    virtual void shutDown() = 0;
    /// In a forked child, which lacks the thread: only closes the stream's descriptors.
    virtual void abandon() = 0;
    /// Body of the thread.
    virtual void run() = 0;

    /// Starts the thread.
    void startThread();
    void joinThread();

    bool isPlayback() const
    {
        return m_stream == SND_PCM_STREAM_PLAYBACK;
    }
    /// @return the program's position
    std::uint64_t getProgramPosition() const
    {
        return m_io.appl_ptr;
    }
    /// @return samples that the program may write or read now
    std::uint64_t getAvailable() const;
    /// @return the address of a sample in the buffer
    std::uint8_t* at(std::uint64_t position)
    {
        return m_buffer.data() + position % m_bufferSize * m_format.getBytesPerSample();
    }
    /// Makes the descriptor readable exactly while the program has something to do.
    ///
    /// @param numTransferred  samples that the program's position does not contain yet
    void updateDescriptor(std::uint64_t numTransferred = 0);
    /// Stops with an error, which the program's next call returns; prints the reason without the
    /// lock.
    void fail(std::unique_lock<std::mutex>& lock, int errorNumber, const std::string& reason);
    /// Reports an underrun or overrun.
    void reportXrun();
    /// The state in which an xrun does not stop the PCM.
    bool runsFreely() const
    {
        return m_stopThreshold > m_bufferSize;
    }

    /// Runs the calling thread with the scheduling of the thread that opened the PCM if that is
    /// real-time, for the threads that it creates.
    class OpenersScheduling
    {
    public:
        explicit OpenersScheduling(const Device& device);
        ~OpenersScheduling();
        OpenersScheduling(const OpenersScheduling&) = delete;
        OpenersScheduling& operator=(const OpenersScheduling&) = delete;

    private:
        int m_formerPolicy = 0;
        sched_param m_former{};
        bool m_changed = false;
    };

    const Settings m_settings;
    snd_pcm_ioplug_t m_io{};
    kit::StreamFormat m_format; // chosen by the program

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    int m_error = 0;              // returned by the program's next call
    std::uint64_t m_position = 0; // of the thread
    std::uint64_t m_bufferSize = 1;
    bool m_isRunning = false; // started, and neither stopped nor in an xrun
    bool m_isPaused = false;
    bool m_isXrun = false;
    bool m_isDraining = false;
    bool m_quits = false;

private:
    snd_pcm_sframes_t getPointer();
    snd_pcm_sframes_t
    transfer(const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset, snd_pcm_uframes_t size);
    int setHardware(snd_pcm_hw_params_t* parameters);
    int setSoftware(snd_pcm_sw_params_t* parameters);
    int prepare();
    int start();
    int stop();
    int pause(int enable);
    int limitFormats(const std::optional<kit::StreamFormat>& format);
    int getEvents(pollfd* descriptors, unsigned int count, unsigned short* result);
    int reportDelay(snd_pcm_sframes_t* delay);
    bool isReady(std::uint64_t numTransferred = 0) const;

    template <auto Member, typename Result, typename... Arguments>
    static Result call(snd_pcm_ioplug_t* io, Arguments... arguments);
    static int close(snd_pcm_ioplug_t* io);
    static const snd_pcm_ioplug_callback_t& getCallbacks();

    const snd_pcm_stream_t m_stream;
    const pid_t m_process;
    int m_openersPolicy = 0;
    sched_param m_openersParameters{};
    // Without any listener, log4cplus prints a warning on standard error.
    const kit::LogListener m_silence{kit::LogLevel::Error, nullptr};
    std::thread m_thread;

    // Guarded by m_mutex.
    Buffer m_buffer;
    std::uint64_t m_availableMinimum = 1;
    std::uint64_t m_stopThreshold = 0;
    bool m_isSignalled = false;
    bool m_hasThreadFailed = false; // permanent
};

/// @return nanoseconds of CLOCK_MONOTONIC
TimeValue getNow();

/// @return the same as a deadline of a condition variable
std::chrono::steady_clock::time_point toDeadline(TimeValue time);

/// The program writes: each period becomes a frame of the stream.
std::unique_ptr<Device> makePlayback(Settings settings);

/// The program reads what the stream brings.
std::unique_ptr<Device> makeCapture(Settings settings);

} // namespace vlx::alsa
