// Programs that play and record through ALSA, against the kit's other end.

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <numeric>

#include <alsa/asoundlib.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>
#include <vlxkit/Producer.hpp>

#include "support/ChildProcess.hpp"
#include "support/VlxTest.hpp"

namespace vlx::testing
{

namespace
{

using namespace std::chrono_literals;
using audioUtils::PcmFormat;
using ::testing::HasSubstr;
using Samples = std::vector<std::int16_t>;

constexpr unsigned int Rate = 48000;
constexpr snd_pcm_uframes_t Period = 480;
constexpr snd_pcm_uframes_t NumPeriods = 20;
constexpr snd_pcm_uframes_t BufferSize = NumPeriods * Period;
constexpr snd_pcm_uframes_t Never = 1U << 30U; // a threshold
constexpr TimeValue Millisecond = 1'000'000;
constexpr kit::StreamFormat Mono = {PcmFormat::S16LE, Rate, 1};

// On a busy machine a thread without real-time scheduling may be too late for some frames.
constexpr kit::RealTime Prompt = {kit::RealTimeUse::Try, 10};

TimeValue now()
{
    return static_cast<TimeValue>(std::chrono::steady_clock::now().time_since_epoch().count());
}

/// @return samples without 0; a value recurs after 65535 samples
Samples makeSamples(std::size_t count, std::size_t first = 0)
{
    Samples samples(count);
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = static_cast<std::int16_t>((first + i) % 65'535 + 1);
    return samples;
}

/// How a test opens and configures its PCM.
struct PcmOptions
{
    snd_pcm_access_t access = SND_PCM_ACCESS_RW_INTERLEAVED;
    snd_pcm_format_t format = SND_PCM_FORMAT_S16_LE;
    unsigned int channels = 1;
    unsigned int rate = Rate;
    int mode = 0;
    snd_pcm_uframes_t period = Period;
    std::string parameters = ",REALTIME=try";
    snd_pcm_uframes_t start = 1, stop = 0, availableMinimum = Period; // thresholds
    const char* prefix = "vlx:";
    const char* suffix = "";
};

/// An open PCM, which is closed at the end.
class Pcm
{
public:
    Pcm(const std::string& name, snd_pcm_stream_t stream, const PcmOptions& options = {})
    {
        const std::string device = options.prefix + name + options.parameters + options.suffix;
        snd_pcm_t* pcm = nullptr;
        error = ::snd_pcm_open(&pcm, device.c_str(), stream, options.mode);
        m_pcm.reset(pcm);
        if (error == 0)
            configure(options);
    }

    operator snd_pcm_t*() const // NOLINT(google-explicit-constructor)
    {
        return m_pcm.get();
    }

    void configure(const PcmOptions& options)
    {
        const snd_pcm_uframes_t buffer = NumPeriods * options.period;
        snd_pcm_hw_params_t* hardware = nullptr;
        snd_pcm_sw_params_t* software = nullptr;
        snd_pcm_hw_params_alloca(&hardware); // NOLINT
        snd_pcm_sw_params_alloca(&software); // NOLINT
        ::snd_pcm_hw_params_any(*this, hardware);
        for (const int result :
             {::snd_pcm_hw_params_set_access(*this, hardware, options.access),
              ::snd_pcm_hw_params_set_format(*this, hardware, options.format),
              ::snd_pcm_hw_params_set_channels(*this, hardware, options.channels),
              ::snd_pcm_hw_params_set_rate(*this, hardware, options.rate, 0),
              ::snd_pcm_hw_params_set_buffer_size(*this, hardware, buffer),
              ::snd_pcm_hw_params_set_period_size(*this, hardware, options.period, 0),
              ::snd_pcm_hw_params(*this, hardware)})
            error = error < 0 ? error : result;
        if (error < 0)
            return;
        ::snd_pcm_sw_params_current(*this, software);
        ::snd_pcm_sw_params_set_start_threshold(*this, software, options.start);
        ::snd_pcm_sw_params_set_stop_threshold(*this, software, std::max(options.stop, buffer));
        ::snd_pcm_sw_params_set_avail_min(*this, software, options.availableMinimum);
        error = ::snd_pcm_sw_params(*this, software);
    }

    void close()
    {
        m_pcm.reset();
    }

    /// Waits for the descriptor.
    ///
    /// @return its events; 0 if it is not ready in time
    unsigned short poll(int milliseconds)
    {
        pollfd descriptor{};
        unsigned short events = 0;
        EXPECT_EQ(::snd_pcm_poll_descriptors_count(*this), 1);
        EXPECT_EQ(::snd_pcm_poll_descriptors(*this, &descriptor, 1), 1);
        if (::poll(&descriptor, 1, milliseconds) == 1)
            ::snd_pcm_poll_descriptors_revents(*this, &descriptor, 1, &events);
        return events;
    }

    void write(const Samples& samples)
    {
        constexpr std::size_t Block = 700; // no buffer is a multiple of it
        for (std::size_t done = 0; done < samples.size(); done += Block)
        {
            const std::size_t count = std::min(samples.size() - done, Block);
            ASSERT_EQ(
                ::snd_pcm_writei(*this, samples.data() + done, count),
                static_cast<snd_pcm_sframes_t>(count));
        }
    }

    /// @return empty after an error
    Samples read(std::size_t count)
    {
        const auto size = static_cast<snd_pcm_sframes_t>(count);
        EXPECT_TRUE(waitFor(
            [&]
            {
                const snd_pcm_sframes_t available = ::snd_pcm_avail(*this);
                return available < 0 || available >= size;
            }));
        Samples samples(count);
        const snd_pcm_sframes_t result = ::snd_pcm_readi(*this, samples.data(), count);
        EXPECT_EQ(result, size);
        return result > 0 ? samples : Samples();
    }

    /// Reads samples, without leading silence.
    Samples readSound(std::size_t count)
    {
        Samples samples;
        while ((samples = read(1)) == Samples(1))
            continue;
        const Samples rest = read(count - 1);
        samples.insert(samples.end(), rest.begin(), rest.end());
        return samples;
    }

    int error = 0;

private:
    std::unique_ptr<snd_pcm_t, int (*)(snd_pcm_t*)> m_pcm{nullptr, ::snd_pcm_close};
};

/// A receiver that keeps everything, and checks each frame against the device's promises.
class Listener
{
public:
    explicit Listener(const std::string& name)
        : m_consumer(
              {.name = name, .realTime = Prompt, .queue = {.time = 0ns, .bytes = 0, .frames = 0}})
    {
        EXPECT_TRUE(m_consumer.start());
    }

    /// Waits until the stream is joined: from then on no frame is missed.
    void join()
    {
        takeUntil([this] { return m_isJoined; });
    }

    /// Reads frames until this many bytes have arrived in total.
    void wait(std::size_t size)
    {
        takeUntil([this, size] { return bytes.size() >= size; });
    }

    /// Waits for as many samples as are expected.
    void expect(const Samples& samples)
    {
        wait(samples.size() * sizeof(std::int16_t));
        EXPECT_EQ(getSamples(), samples);
    }

    Samples getSamples() const
    {
        Samples samples(bytes.size() / sizeof(std::int16_t));
        std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(std::int16_t));
        return samples;
    }

    std::vector<kit::FrameInfo> frames;
    std::vector<std::size_t> offsets; // bytes before each of them
    TimeValue lateness = 0;           // the largest
    Buffer bytes;
    kit::StreamFormat format;

private:
    void takeUntil(const std::function<bool()>& condition)
    {
        const auto takeMore = [&]
        {
            if (condition())
                return true;
            if (const auto item = m_consumer.read(100ms))
                take(*item);
            return false;
        };
        ASSERT_TRUE(waitFor(takeMore)) << bytes.size();
    }

    void take(const kit::ConsumerItem& item)
    {
        if (const auto* const announced = std::get_if<kit::StreamFormat>(&item))
        {
            format = *announced;
            m_isJoined = true;
        }
        const auto* const frame = std::get_if<kit::ReceivedFrame>(&item);
        if (frame == nullptr)
            return;
        EXPECT_GE(frame->timestamp, m_end) << "overlaps the previous frame";
        EXPECT_GE(frame->arrival, frame->timestamp) << "left before it was due";
        EXPECT_LE(frame->duration, 20 * Millisecond);
        m_end = frame->timestamp + frame->duration;
        lateness = std::max(lateness, frame->arrival - frame->timestamp);
        frames.push_back(*frame);
        offsets.push_back(bytes.size());
        bytes.insert(bytes.end(), frame->data.begin(), frame->data.end());
    }

    kit::Consumer m_consumer;
    bool m_isJoined = false;
    TimeValue m_end = now(); // of the last frame
};

std::string errors; // what ALSA and the plugin have printed
std::mutex errorsMutex;
std::atomic<bool> throwsError = false; // once

__attribute__((format(printf, 5, 6))) void
keepError(const char*, int, const char*, int, const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    std::array<char, 300> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    const std::lock_guard<std::mutex> lock(errorsMutex);
    errors += text.data();
    if (throwsError.exchange(false))
        throw std::runtime_error("out of order");
}

class AlsaTest : public VlxTest
{
protected:
    AlsaTest()
    {
        ::snd_lib_error_set_handler(keepError);
        errors.clear();
    }

    void TearDown() override
    {
        ::snd_config_update_free_global();
        ::snd_lib_error_set_handler(nullptr);
        VlxTest::TearDown();
    }

    Pcm play(const PcmOptions& options = {}) const
    {
        return {getSocketName(), SND_PCM_STREAM_PLAYBACK, options};
    }

    Pcm record(const PcmOptions& options = {}) const
    {
        return {getSocketName(), SND_PCM_STREAM_CAPTURE, options};
    }

    const kit::RealTimeScope m_scope{Prompt}; // a delay causes underruns and overruns

    kit::Producer makeProducer() const
    {
        kit::Producer producer({.name = getSocketName(), .realTime = Prompt});
        EXPECT_TRUE(producer.open(Mono));
        return producer;
    }

    /// Sends samples as one frame.
    static void send(kit::Producer& producer, const Samples& samples, TimeValue timestamp = now())
    {
        ASSERT_TRUE(producer.waitForReceivers(1, DefaultDeadline));
        ASSERT_TRUE(producer.send(
            timestamp, Mono.toNanoseconds(samples.size()),
            {reinterpret_cast<const unsigned char*>(samples.data()),
             samples.size() * sizeof(std::int16_t)}));
    }
};

constexpr auto Plain = SND_PCM_ACCESS_RW_INTERLEAVED;
constexpr auto Planar = SND_PCM_ACCESS_RW_NONINTERLEAVED;
constexpr auto Mapped = SND_PCM_ACCESS_MMAP_INTERLEAVED;

struct Layout
{
    snd_pcm_access_t access;
    snd_pcm_format_t format;
    unsigned int channels;
    unsigned int rate;
    PcmFormat expected;
};

class LayoutTest : public AlsaTest, public ::testing::WithParamInterface<Layout>
{
};

TEST_P(LayoutTest, ArrivesWithEveryByte)
{
    const auto& [access, format, channels, rate, expected] = GetParam();
    const PcmOptions options = {access, format, channels, rate, 0, rate / 100};
    const std::size_t width = audioUtils::bytesPerSample(expected);
    const bool isPlanar = access == Planar;
    const bool isMapped = access == Mapped;
    const std::size_t length = std::size_t(6) * (rate / 100);
    Buffer program(length * channels * width); // the planes of a planar one follow each other
    std::iota(program.begin(), program.end(), std::uint8_t(1));
    Buffer stream = program;
    for (std::size_t i = 0; isPlanar && i < stream.size(); ++i)
    {
        const std::size_t sample = i / width;
        stream[i] = program[(sample % channels * length + sample / channels) * width + i % width];
    }
    const auto transfer = [&, numChannels = channels](
                              snd_pcm_t* pcm, Buffer& data, auto planar, auto mapped, auto plain)
    {
        std::vector<void*> planes;
        for (std::size_t i = 0; i < numChannels; ++i)
            planes.push_back(data.data() + i * length * width);
        EXPECT_EQ(
            isPlanar   ? planar(pcm, planes.data(), length)
            : isMapped ? mapped(pcm, data.data(), length)
                       : plain(pcm, data.data(), length),
            static_cast<snd_pcm_sframes_t>(length));
    };

    const kit::StreamFormat streamFormat{expected, rate, channels};
    Buffer recorded(program.size());
    const auto playAndRecord = [&]
    {
        Listener listener(getSocketName());
        Pcm player = play(options);
        ASSERT_EQ(player.error, 0) << errors;
        Pcm recorder = record(options);
        ASSERT_EQ(recorder.error, 0) << errors;
        ASSERT_EQ(::snd_pcm_start(recorder), 0);
        const auto isOwn = [this](const kit::SenderEntry& sender)
        { return sender.name == getSocketName() && sender.receivers == 2; };
        ASSERT_TRUE(
            waitFor([&] { return std::ranges::any_of(kit::listSenders().senders, isOwn); }));
        transfer(player, program, ::snd_pcm_writen, ::snd_pcm_mmap_writei, ::snd_pcm_writei);
        EXPECT_EQ(::snd_pcm_drain(player), 0);
        transfer(recorder, recorded, ::snd_pcm_readn, ::snd_pcm_mmap_readi, ::snd_pcm_readi);
        listener.wait(stream.size());
        EXPECT_EQ(listener.format, streamFormat);
        EXPECT_EQ(listener.bytes, stream);
    };
    // A receiver that has just joined may miss the announcement, and with it the first frame.
    for (int i = 0; i < 3 && !HasFailure() && recorded != program; ++i)
        playAndRecord();
    EXPECT_EQ(recorded, program);
    EXPECT_EQ(errors, "");
}

INSTANTIATE_TEST_SUITE_P(
    Layouts,
    LayoutTest,
    ::testing::Values(
        Layout{Plain, SND_PCM_FORMAT_S8, 1, 8000, PcmFormat::S8},
        Layout{Plain, SND_PCM_FORMAT_U8, 2, 11025, PcmFormat::U8},
        Layout{Mapped, SND_PCM_FORMAT_S16_LE, 6, 44100, PcmFormat::S16LE},
        Layout{Plain, SND_PCM_FORMAT_S16_BE, 2, 48000, PcmFormat::S16BE},
        Layout{Planar, SND_PCM_FORMAT_S24_3LE, 2, 48000, PcmFormat::S24LE},
        Layout{Plain, SND_PCM_FORMAT_S24_3BE, 8, 96000, PcmFormat::S24BE},
        Layout{Plain, SND_PCM_FORMAT_S32_LE, 2, 384000, PcmFormat::S32LE},
        Layout{Mapped, SND_PCM_FORMAT_S32_BE, 64, 8000, PcmFormat::S32BE},
        Layout{Plain, SND_PCM_FORMAT_FLOAT_LE, 2, 192000, PcmFormat::F32LE},
        Layout{Plain, SND_PCM_FORMAT_FLOAT_BE, 1, 48000, PcmFormat::F32BE},
        Layout{Planar, SND_PCM_FORMAT_FLOAT64_LE, 3, 48000, PcmFormat::F64LE},
        Layout{Plain, SND_PCM_FORMAT_FLOAT64_BE, 2, 48000, PcmFormat::F64BE}),
    [](const auto& each) { return std::string(toString(each.param.expected)); });

TEST_F(AlsaTest, OffersTheFormatsOfStreams)
{
    const Pcm pcm = play();
    snd_pcm_hw_params_t* parameters = nullptr;
    snd_pcm_hw_params_alloca(&parameters); // NOLINT
    ::snd_pcm_hw_params_any(pcm, parameters);
    snd_output_t* output = nullptr;
    ASSERT_EQ(::snd_output_buffer_open(&output), 0);
    ::snd_pcm_hw_params_dump(parameters, output);
    char* text = nullptr;
    const std::size_t size = ::snd_output_buffer_string(output, &text);
    const std::string ranges(text, size);
    ::snd_output_close(output);
    for (const char* const range :
         {"FORMAT:  S8 U8 S16_LE S16_BE S32_LE S32_BE FLOAT_LE FLOAT_BE FLOAT64_LE FLOAT64_BE "
          "S24_3LE S24_3BE",
          "CHANNELS: [1 64]", "RATE: [8000 384000]", "BUFFER_BYTES: [128 1048576]"})
        EXPECT_THAT(ranges, HasSubstr("\n" + std::string(range) + "\n"));
}

TEST_F(AlsaTest, DeviceListsNameTheRunningStreams)
{
    const kit::Producer producer = makeProducer();
    kit::Producer strange({.name = getSocketName() + "|IOIDInput"});
    ASSERT_TRUE(strange.open(Mono));
    void** hints = nullptr;
    ASSERT_EQ(::snd_device_name_hint(-1, "pcm", &hints), 0);
    std::string list;
    for (void** hint = hints; *hint != nullptr; ++hint)
        list += static_cast<const char*>(*hint) + std::string("\n");
    ::snd_device_name_free_hint(hints);
    EXPECT_THAT(list, HasSubstr("NAMEvlx|DESCVellox stream: vlx:NAME\n"));
    EXPECT_THAT(list, HasSubstr("\nvlx:" + getSocketName() + " (" + kit::toText(Mono) + ")\n"));
    EXPECT_THAT(list, ::testing::Not(HasSubstr("IOIDInput")));
}

TEST_F(AlsaTest, RefusesWhatItCannotOpen)
{
    constexpr auto Playback = SND_PCM_STREAM_PLAYBACK;
    constexpr auto Capture = SND_PCM_STREAM_CAPTURE;
    kit::PlainPayloader opus(0x7375706F, Buffer());
    kit::Producer pcm({.name = getSocketName() + "-pcm"});
    kit::Producer other({.name = getSocketName() + "-other"});
    ASSERT_TRUE(pcm.open(Mono));
    ASSERT_TRUE(other.open(opus));
    const std::string name = getSocketName() + "-pcm";
    EXPECT_EQ(Pcm(name, Playback).error, -EBUSY);
    EXPECT_THAT(errors, HasSubstr("the name \"" + name + "\" is taken by another sender"));
    EXPECT_EQ(Pcm(name, Capture).error, 0);
    EXPECT_EQ(Pcm(name, Capture, {.rate = 44100, .prefix = "plug:'vlx:", .suffix = "'"}).error, 0);
    for (const PcmOptions& options : std::initializer_list<PcmOptions>{
             {.rate = 44100}, {.channels = 2}, {.format = SND_PCM_FORMAT_S32_LE}})
        EXPECT_EQ(Pcm(name, Capture, options).error, -EINVAL);
    EXPECT_EQ(Pcm(getSocketName() + "-other", Capture).error, -EINVAL);
    EXPECT_THAT(errors, HasSubstr("carries the codec \"opus\", not PCM"));
    kit::Producer wide({.name = getSocketName() + "-wide"});
    ASSERT_TRUE(wide.open({PcmFormat::S16LE, Rate, 65}));
    EXPECT_EQ(Pcm(getSocketName() + "-wide", Capture, {.channels = 65}).error, -EINVAL);
    EXPECT_THAT(errors, HasSubstr("has 65 channels, more than 64"));
    for (const char* const parameters :
         {",CLOCK=sundial", ",CLOCK=net", ",CLOCK_PORT=1", ",CLOCK_PORT=70000", ",SOCKET_MODE=some",
          ",REALTIME=yes", ",ON_GAP=noise", ",SENDER_USER=no-such-user", ",TIMEOUT=0",
          ",TIMEOUT=-1", ",TIMEOUT=1e10", ",TIMEOUT=5h"})
        EXPECT_EQ(record({.parameters = parameters}).error, -EINVAL) << parameters;
    EXPECT_THAT(errors, HasSubstr("vlx: invalid parameter timeout \"5h\""));
    snd_pcm_t* unnamed = nullptr;
    EXPECT_EQ(::snd_pcm_open(&unnamed, "vlx", Playback, 0), -EINVAL);
    EXPECT_THAT(errors, HasSubstr("open the device as vlx:NAME"));
    const auto openAsOther = [&]
    {
        constexpr uid_t Other = 65534;
        if (::syscall(SYS_setresuid, Other, Other, Other) != 0) // of this thread alone
            return;
        EXPECT_EQ(Pcm(name, Capture).error, -EACCES);
    };
    std::thread(openAsOther).join();
    pcm.close();
    EXPECT_EQ(Pcm(name, Playback).error, 0); // it is free again
    ::setenv("TMPDIR", "/nonexistent", 1);
    EXPECT_EQ(play().error, -ENOENT);
    ::setenv("TMPDIR", getTempDirectory().c_str(), 1);
}

TEST_F(AlsaTest, PlaysByTheClockAndReportsTheDelay)
{
    // No two are multiples: period, frame, buffer, nanoseconds of a sample.
    constexpr unsigned int OddRate = 44100;
    Listener listener(getSocketName());
    Pcm pcm = play({.rate = OddRate, .period = 1000});
    ASSERT_EQ(pcm.error, 0) << errors;
    listener.join();
    const Samples samples = makeSamples(std::size_t(50) * 441);
    struct Look
    {
        TimeValue from, to; // when
        std::size_t written;
        snd_pcm_sframes_t delay;
    };
    std::vector<Look> looks;
    for (std::size_t done = 0; done < samples.size(); done += 441)
    {
        const auto place = samples.begin() + static_cast<std::ptrdiff_t>(done);
        pcm.write(Samples(place, place + 441));
        if (done < std::size_t(5) * 441)
            continue; // it has just started
        Look look = {now(), 0, done + 441, 0};
        ASSERT_EQ(::snd_pcm_delay(pcm, &look.delay), 0);
        look.to = now();
        looks.push_back(look);
    }
    ASSERT_EQ(::snd_pcm_drain(pcm), 0);
    const TimeValue end = now();
    listener.expect(samples);
    const TimeValue start = listener.frames[0].timestamp;
    EXPECT_GE(end - start, 500 * Millisecond);
    const auto toPlayed = [&](TimeValue time)
    { return (static_cast<double>(time) - static_cast<double>(start)) * 1e-9 * OddRate; };
    for (const Look& look : looks)
    {
        const auto played = static_cast<double>(look.written) - static_cast<double>(look.delay);
        EXPECT_GE(played, toPlayed(look.from - listener.lateness) - 1);
        EXPECT_LE(played, toPlayed(look.to) + 1);
    }
    for (std::size_t i = 0; i < listener.frames.size(); ++i)
        EXPECT_EQ(
            listener.frames[i].timestamp,
            start + listener.offsets[i] / 2 * 1'000'000'000 / OddRate);
}

TEST_F(AlsaTest, UnderrunIsAGapOfItsLength)
{
    Listener listener(getSocketName());
    Pcm pcm = play({.start = Never});
    listener.join();
    const Samples samples = makeSamples(3 * Period);
    pcm.write(makeSamples(Period));
    pcm.write(Samples(2 * Period, -7));
    ASSERT_EQ(::snd_pcm_rewind(pcm, 2 * Period), 2 * Period);
    pcm.write(makeSamples(2 * Period, Period));
    EXPECT_EQ(::snd_pcm_state(pcm), SND_PCM_STATE_PREPARED);
    ASSERT_EQ(::snd_pcm_start(pcm), 0);
    ASSERT_TRUE(waitFor([&] { return ::snd_pcm_avail(pcm) == -EPIPE; }));
    EXPECT_EQ(::snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
    EXPECT_EQ(::snd_pcm_writei(pcm, samples.data(), 1), -EPIPE);
    snd_pcm_sframes_t delay = 0;
    EXPECT_EQ(::snd_pcm_delay(pcm, &delay), -EPIPE);
    EXPECT_NE(pcm.poll(0) & POLLERR, 0);
    std::this_thread::sleep_for(50ms); // the gap
    ASSERT_EQ(::snd_pcm_prepare(pcm), 0);
    EXPECT_EQ(pcm.poll(0), POLLOUT);
    pcm.write(samples);
    ASSERT_EQ(::snd_pcm_drain(pcm), 0); // starts it, too
    listener.wait(samples.size() * 4);
    EXPECT_TRUE(std::equal(samples.begin(), samples.end(), listener.getSamples().begin()));
    const kit::FrameInfo& second = listener.frames.at(3); // a frame is a period
    EXPECT_EQ(
        static_cast<TimeValue>(second.gapNs),
        second.timestamp - listener.frames[0].timestamp - 30 * Millisecond);
    EXPECT_GE(second.gapNs, 50'000'000);
}

TEST_F(AlsaTest, PauseIsAGapAndDropEndsAtOnce)
{
    Listener listener(getSocketName());
    Pcm pcm = play({.period = 4800});
    listener.join();
    constexpr std::size_t NumWritten = 10; // 1 s
    pcm.write(makeSamples(NumWritten * 4800));
    listener.wait(1920); // it plays
    ASSERT_EQ(::snd_pcm_pause(pcm, 1), 0);
    snd_pcm_sframes_t before = 0;
    snd_pcm_sframes_t after = 0;
    std::this_thread::sleep_for(100ms); // the pause: nothing happens in it
    ::snd_pcm_delay(pcm, &before);
    std::this_thread::sleep_for(50ms);
    ::snd_pcm_delay(pcm, &after);
    EXPECT_EQ(before, after);
    const auto played =
        static_cast<std::size_t>(::snd_pcm_avail(pcm)) - (NumPeriods - NumWritten) * 4800;
    ASSERT_EQ(::snd_pcm_pause(pcm, 0), 0);
    listener.wait(played * 2 + 1); // the next frame
    std::int64_t gaps = 0;
    for (const kit::FrameInfo& frame : listener.frames)
        gaps += frame.gapNs;
    EXPECT_GE(gaps, 100'000'000);
    for (const unsigned int rate : {Rate, Rate / 2})
    {
        const bool isSame = rate == Rate; // then what is dropped was paused
        listener.wait(listener.bytes.size() + 1);
        EXPECT_EQ(isSame ? ::snd_pcm_pause(pcm, 1) : 0, 0);
        ASSERT_EQ(::snd_pcm_drop(pcm), 0);
        const TimeValue dropped = now();
        EXPECT_EQ(::snd_pcm_state(pcm), SND_PCM_STATE_SETUP);
        std::this_thread::sleep_for(isSame ? 0ms : 50ms); // at once the frames could overlap
        if (isSame)
            ASSERT_EQ(::snd_pcm_prepare(pcm), 0);
        else
            pcm.configure({.rate = rate, .period = 4800});
        EXPECT_EQ(::snd_pcm_avail(pcm), NumPeriods * 4800);
        const auto mark = static_cast<std::int16_t>(isSame ? -7 : -8);
        const TimeValue restarted = now();
        pcm.write(Samples(NumWritten * 4800, mark)); // and then it plays anew
        while (!HasFatalFailure() && listener.getSamples().back() != mark)
            listener.wait(listener.bytes.size() + 1);
        EXPECT_EQ(listener.format.rate, rate);
        for (const kit::FrameInfo& frame : listener.frames)
            EXPECT_FALSE(frame.timestamp > dropped && frame.timestamp < restarted);
    }
}

TEST_F(AlsaTest, PollWakesTheProgramOnlyWhenAPeriodIsFree)
{
    Listener listener(getSocketName());
    Pcm pcm = play({.mode = SND_PCM_NONBLOCK});
    listener.join();
    const Samples samples = makeSamples(3 * BufferSize);
    std::size_t wakeups = 0;
    for (std::size_t done = 0; done < samples.size(); ++wakeups)
    {
        if ((pcm.poll(5000) & POLLOUT) == 0)
            continue;
        EXPECT_GE(::snd_pcm_avail_update(pcm), static_cast<snd_pcm_sframes_t>(Period));
        const snd_pcm_sframes_t count =
            ::snd_pcm_writei(pcm, samples.data() + done, samples.size() - done);
        ASSERT_GT(count, 0);
        done += static_cast<std::size_t>(count);
        EXPECT_TRUE(done == samples.size() || ::snd_pcm_writei(pcm, samples.data(), 1) == -EAGAIN);
    }
    EXPECT_LE(wakeups, 2 * NumPeriods + 5);
    EXPECT_EQ(::snd_pcm_drain(pcm), -EAGAIN);
    while (::snd_pcm_drain(pcm) == -EAGAIN && ++wakeups < 3 * NumPeriods)
        EXPECT_NE(pcm.poll(5000), 0);
    EXPECT_EQ(::snd_pcm_state(pcm), SND_PCM_STATE_SETUP);
    EXPECT_LE(wakeups, 2 * NumPeriods + 10);
    listener.expect(samples);
}

TEST_F(AlsaTest, AProgramThatIgnoresUnderrunsResumesOnTime)
{
    Listener listener(getSocketName());
    Pcm pcm = play({.stop = Never});
    listener.join();
    pcm.write(makeSamples(2 * Period));
    ASSERT_TRUE(waitFor(
        [&]
        { return ::snd_pcm_avail(pcm) > static_cast<snd_pcm_sframes_t>(BufferSize + Period); }));
    EXPECT_EQ(::snd_pcm_state(pcm), SND_PCM_STATE_RUNNING);
    const std::size_t late = 2 * Period + 4 * BufferSize; // what is too late is lost
    pcm.write(makeSamples(late - 2 * Period, 2 * Period));
    ASSERT_EQ(::snd_pcm_drain(pcm), 0);
    listener.wait(3 * Period * 2);
    while (!HasFatalFailure() && listener.getSamples().back() != makeSamples(1, late - 1)[0])
        listener.wait(listener.bytes.size() + 1);
    const kit::FrameInfo& last = listener.frames.back();
    EXPECT_EQ(
        last.timestamp + last.duration - listener.frames[0].timestamp, Mono.toNanoseconds(late));
}

TEST_F(AlsaTest, MissingSamplesBecomeSilenceOfTheirLength)
{
    enum Meanwhile
    {
        Nothing,
        NewSender,
        Pause
    };
    struct Case
    {
        const char* name;
        int stamp;   // of the second sound after the first, milliseconds
        int sent;    // the same, at least
        int silence; // before it, milliseconds; -1: as long as it took
        Meanwhile meanwhile;
    };
    constexpr int Hour = 3'600'000;
    kit::Producer producer = makeProducer();
    Pcm pcm = record({.period = 4800});
    for (const auto& [name, stamp, sent, silence, meanwhile] :
         {Case{"nothing is missing", 20, 0, 0, Nothing}, Case{"a gap", 100, 100, 80, Nothing},
          Case{"a gap longer than a frame may be late", 300, 300, 280, Nothing},
          Case{"late, silence took its place", 20, 300, 0, Nothing},
          Case{"its sender returned", 250, 250, 230, NewSender},
          Case{"its sender returned with an earlier clock", -Hour, 250, -1, NewSender},
          Case{"a stamp jumps ahead", Hour, 0, -1, Nothing},
          Case{"a stamp jumps back", -Hour, 0, 0, Nothing},
          Case{"the program paused", 300, 300, -1, Pause}})
    {
        SCOPED_TRACE(name);
        const auto toTime = [](int milliseconds)
        { return static_cast<TimeValue>(milliseconds) * Millisecond; };
        ASSERT_EQ(::snd_pcm_start(pcm), 0);
        TimeValue begin = now();
        const TimeValue stampBegin = begin + toTime(stamp);
        send(producer, makeSamples(2 * Period), begin);
        Samples recorded = pcm.readSound(2 * Period);
        ASSERT_EQ(recorded, makeSamples(2 * Period));
        const TimeValue arrived = now() + 20 * Millisecond; // its end, at the latest
        if (meanwhile == NewSender)
        {
            producer.close();
            ASSERT_TRUE(producer.open(Mono));
        }
        EXPECT_EQ(meanwhile == Pause ? ::snd_pcm_pause(pcm, 1) : 0, 0);
        std::this_thread::sleep_until(
            std::chrono::steady_clock::time_point(std::chrono::nanoseconds(begin + toTime(sent))));
        TimeValue least = std::max(now(), arrived) - arrived;
        if (meanwhile == Pause)
        {
            begin = now() - 20 * Millisecond;
            least = 0;
            EXPECT_EQ(::snd_pcm_pause(pcm, 0), 0);
        }
        TimeValue heard = 0; // when
        for (std::size_t size = 2 * Period; size < 202 * Period; size += 100 * Period)
        {
            const Samples samples = makeSamples(100 * Period, size);
            const auto before = static_cast<std::ptrdiff_t>(recorded.size());
            send(producer, samples, stampBegin + Mono.toNanoseconds(size - 2 * Period));
            while (recorded.back() != samples.back() && recorded.size() < 600 * Period)
            {
                const snd_pcm_sframes_t available = ::snd_pcm_avail(pcm);
                const Samples more = pcm.read(static_cast<std::size_t>(std::max(available, 1L)));
                recorded.insert(recorded.end(), more.begin(), more.end());
                if (heard == 0 && recorded.back() != 0)
                    heard = now();
            }
            const auto sound = std::find_if(
                recorded.begin() + before, recorded.end(),
                [](std::int16_t sample) { return sample != 0; });
            const auto numSounding = recorded.end() - sound;
            EXPECT_TRUE(
                Samples(sound, recorded.end()) ==
                Samples(samples.end() - numSounding, samples.end()));
        }
        // The samples that silence has replaced are left out.
        ASSERT_GE(recorded.size(), 202 * Period);
        const std::size_t missing = recorded.size() - 202 * Period;
        const auto exact = Mono.toSamples(toTime(std::max(silence, 0)));
        const std::size_t rounded = meanwhile == NewSender ? 1 : 0;
        EXPECT_GE(missing + rounded, silence >= 0 ? exact : Mono.toSamples(least));
        EXPECT_LE(
            missing,
            (silence >= 0 ? exact : Mono.toSamples(heard - begin - 20 * Millisecond)) + rounded);
        ASSERT_EQ(::snd_pcm_drop(pcm), 0);
        ASSERT_EQ(::snd_pcm_prepare(pcm), 0);
    }
    producer.stop(); // closes at once
}

TEST_F(AlsaTest, ReportsWhyARecordingCannotContinue)
{
    struct Case
    {
        const char* parameters;
        int error;
        snd_pcm_state_t state;
    };
    for (const auto& [parameters, error, state] :
         {Case{"", -ENODEV, SND_PCM_STATE_DISCONNECTED},
          Case{",TIMEOUT=1000ms", -EIO, SND_PCM_STATE_RUNNING},
          Case{",TIMEOUT=1", -EIO, SND_PCM_STATE_RUNNING},
          Case{",ON_GAP=xrun", -EPIPE, SND_PCM_STATE_XRUN}})
    {
        SCOPED_TRACE(parameters);
        kit::Producer producer = makeProducer();
        Pcm pcm = record({.parameters = parameters});
        ASSERT_EQ(::snd_pcm_start(pcm), 0);
        send(producer, makeSamples(Period));
        const TimeValue begin = now();
        EXPECT_EQ(pcm.read(Period), makeSamples(Period));
        std::unique_lock<std::mutex> lock(errorsMutex, std::defer_lock);
        if (error == -ENODEV)
        {
            ASSERT_TRUE(producer.setFormat({PcmFormat::S16LE, 44100, 1}));
            ASSERT_TRUE(waitFor(
                []
                {
                    const std::lock_guard<std::mutex> locked(errorsMutex);
                    return errors.find("the stream's format has changed to") != std::string::npos;
                }));
            ASSERT_EQ(::snd_pcm_drop(pcm), 0);
            ASSERT_EQ(::snd_pcm_prepare(pcm), 0);
            lock.lock(); // the program's error handler waits meanwhile
            ASSERT_EQ(::snd_pcm_start(pcm), 0);
            send(producer, makeSamples(Period));
        }
        Samples samples(Period);
        snd_pcm_sframes_t result = 0;
        while ((result = ::snd_pcm_readi(pcm, samples.data(), Period)) > 0) // silence
            EXPECT_EQ(samples, Samples(Period));
        EXPECT_EQ(result, error);
        EXPECT_NE(pcm.poll(0) & POLLERR, 0);
        EXPECT_EQ(::snd_pcm_state(pcm), state);
        EXPECT_GE(now() - begin, (error == -EIO ? 900U : 0U) * Millisecond);
        if (error == -ENODEV)
            continue; // the program opens it again
        ASSERT_EQ(::snd_pcm_prepare(pcm), 0);
        ASSERT_EQ(::snd_pcm_start(pcm), 0);
        if (error == -EPIPE) // it is reported once
        {
            std::this_thread::sleep_for(300ms);
            EXPECT_EQ(::snd_pcm_avail(pcm), 0);
        }
        send(producer, makeSamples(Period));
        EXPECT_EQ(pcm.readSound(Period), makeSamples(Period));
        send(producer, makeSamples(Period), now() + 100 * Millisecond);
        EXPECT_EQ(::snd_pcm_readi(pcm, samples.data(), 1), error == -EPIPE ? error : 1); // the gap
    }
}

TEST_F(AlsaTest, WhenTheThreadHasFailedThePcmCannotBePrepared)
{
    Pcm pcm = record();
    ASSERT_EQ(::snd_pcm_start(pcm), 0);
    throwsError = true; // where the thread reports the codec
    kit::PlainPayloader opus(0x7375706F, Buffer());
    kit::Producer producer({.name = getSocketName()});
    ASSERT_TRUE(producer.open(opus));
    std::int16_t sample = 0;
    EXPECT_EQ(::snd_pcm_readi(pcm, &sample, 1), -EIO);
    EXPECT_EQ(::snd_pcm_drop(pcm), 0);
    EXPECT_EQ(::snd_pcm_prepare(pcm), -EIO);
    EXPECT_THAT(errors, HasSubstr("out of order"));
}

TEST_F(AlsaTest, DrainEndsARecordingAndCanBeAborted)
{
    kit::Producer producer = makeProducer();
    for (const char* const suffix : {"", "-unsent"})
    {
        Pcm recorder(getSocketName() + suffix, SND_PCM_STREAM_CAPTURE);
        ASSERT_EQ(::snd_pcm_start(recorder), 0);
        EXPECT_EQ(::snd_pcm_drain(recorder), 0);
        EXPECT_EQ(::snd_pcm_state(recorder), SND_PCM_STATE_SETUP);
    }
    Pcm player(getSocketName() + "-p", SND_PCM_STREAM_PLAYBACK, {.period = 24'000});
    player.write(makeSamples(NumPeriods * 24'000)); // 10 s
    int result = 0;
    std::thread drainer([&] { result = ::snd_pcm_drain(player); });
    EXPECT_TRUE(waitFor([&] { return ::snd_pcm_state(player) == SND_PCM_STATE_DRAINING; }));
    EXPECT_EQ(::snd_pcm_abort(player), 0); // as a signal handler does
    drainer.join();
    EXPECT_EQ(result, -EAGAIN);
    EXPECT_EQ(::snd_pcm_drop(player), 0);
}

TEST_F(AlsaTest, AReaderThatStopsGetsAnOverrun)
{
    kit::Producer producer = makeProducer();
    for (const snd_pcm_uframes_t stop : {snd_pcm_uframes_t(0), Never})
    {
        Pcm pcm = record({.stop = stop, .availableMinimum = 3 * Period});
        ASSERT_EQ(::snd_pcm_start(pcm), 0);
        snd_pcm_sframes_t delay = 0;
        TimeValue time = now();
        const auto sendPeriods = [&](std::size_t count)
        {
            send(producer, makeSamples(count * Period), time);
            time += Mono.toNanoseconds(count * Period);
        };
        const auto waitUntilAvailable = [&](snd_pcm_uframes_t samples)
        {
            return waitFor(
                [&] { return ::snd_pcm_avail(pcm) == static_cast<snd_pcm_sframes_t>(samples); });
        };
        sendPeriods(2);
        EXPECT_TRUE(waitUntilAvailable(2 * Period));
        EXPECT_EQ(pcm.poll(0), 0);
        sendPeriods(1);
        EXPECT_EQ(pcm.poll(5000), POLLIN);
        EXPECT_EQ(pcm.read(Period), makeSamples(Period));
        ASSERT_EQ(::snd_pcm_delay(pcm, &delay), 0);
        EXPECT_EQ(delay, 2 * Period);
        EXPECT_EQ(pcm.poll(0), 0);
        sendPeriods(NumPeriods);
        if (stop == Never)
        {
            EXPECT_TRUE(waitUntilAvailable(BufferSize + 2 * Period));
            continue;
        }
        ASSERT_TRUE(waitFor([&] { return ::snd_pcm_avail(pcm) == -EPIPE; }));
        Samples samples(Period);
        EXPECT_EQ(::snd_pcm_readi(pcm, samples.data(), Period), -EPIPE);
    }
}

TEST_F(AlsaTest, WaitingCostsNothing)
{
    if (std::getenv("VLX_EMULATED") != nullptr)
        GTEST_SKIP() << "an emulator costs something";
    Pcm player(getSocketName() + "-p", SND_PCM_STREAM_PLAYBACK);
    Pcm recorder = record({.mode = SND_PCM_NONBLOCK}); // no sender
    ASSERT_EQ(::snd_pcm_start(recorder), 0);
    std::this_thread::sleep_for(1s); // announces the stream
    const std::clock_t before = std::clock();
    const TimeValue begin = now();
    EXPECT_EQ(recorder.poll(2000), 0);
    const double spent = static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC;
    EXPECT_LT(spent, 0.01 * 1e-9 * static_cast<double>(now() - begin));
}

TEST_F(AlsaTest, TwoThreadsPlayAgainAndAgainAndLeaveNothing)
{
    const auto playAgainAndAgain = [this](const char* suffix)
    {
        for (int i = 0; i < 5; ++i)
        {
            Listener listener(getSocketName() + suffix);
            Pcm pcm(getSocketName() + suffix, SND_PCM_STREAM_PLAYBACK);
            listener.join();
            pcm.write(makeSamples(3 * Period));
            EXPECT_EQ(::snd_pcm_drain(pcm), 0);
            listener.expect(makeSamples(3 * Period));
            pcm.close();
            ::snd_config_update_free_global();
        }
    };
    std::thread other(playAgainAndAgain, "-a");
    playAgainAndAgain("-b");
    other.join();
}

TEST_F(AlsaTest, AForkedChildClosesTheDeviceAndExitsAndItsParentPlaysOn)
{
    const std::string device = "vlx:" + getSocketName();
    Listener listener(getSocketName() + "-b");
    for (const std::vector<std::string>& devices :
         std::vector<std::vector<std::string>>{{}, {device + "-a", device + "-b"}})
    {
        // In a forked child, a sanitizer prints that it cannot detect leaks.
        std::vector<std::string> arguments = {
            "/usr/bin/env", "LSAN_OPTIONS=detect_leaks=0", ALSA_HOST};
        arguments.insert(arguments.end(), devices.begin(), devices.end());
        ChildProcess host(arguments);
        if (!devices.empty())
            listener.join();
        host.finish();
        std::vector<std::string> lines;
        for (std::string line = host.readLine(); !line.empty(); line = host.readLine())
            lines.push_back(line);
        EXPECT_THAT(lines, ::testing::ElementsAre("at exit", "child: 3", "at exit"));
    }
    Samples samples = makeSamples(Period);
    samples.insert(samples.end(), samples.begin(), samples.begin() + Period);
    listener.expect(samples);
}

TEST_F(AlsaTest, ThreadsHaveTheWantedScheduling)
{
    const auto setPolicy = [](int policy)
    {
        const sched_param parameters{policy == SCHED_OTHER ? 0 : 5};
        return ::pthread_setschedparam(::pthread_self(), policy, &parameters) == 0;
    };
    struct Case
    {
        int opener; // its policy
        const char* parameters;
        int expected; // of the plugin's threads
    };
    for (const Case& row :
         {Case{SCHED_OTHER, "", SCHED_OTHER}, Case{SCHED_FIFO, "", SCHED_FIFO},
          Case{SCHED_OTHER, ",REALTIME=try", SCHED_RR}})
    {
        if (!setPolicy(SCHED_FIFO))
            GTEST_SKIP() << "needs the permission for real-time scheduling";
        setPolicy(row.opener);
        Pcm player(getSocketName() + "-p", SND_PCM_STREAM_PLAYBACK, {.parameters = row.parameters});
        Pcm recorder = record({.parameters = row.parameters});
        setPolicy(SCHED_OTHER); // it may change between opening and starting
        ASSERT_EQ(::snd_pcm_start(recorder), 0);
        EXPECT_EQ(::sched_getscheduler(0), SCHED_OTHER);
        std::map<std::string, std::set<int>> policies; // of threads, by name
        const auto look = [&]
        {
            policies.clear();
            for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
            {
                std::string name;
                std::getline(std::ifstream(task.path() / "comm"), name);
                policies[name].insert(::sched_getscheduler(std::stoi(task.path().filename())));
            }
            const std::set<int> expected = {row.expected};
            return policies["vlx-playback"] == expected && policies["vlx-capture"] == expected &&
                   policies["vlx-listener"] == expected;
        };
        EXPECT_TRUE(waitFor(look))
            << row.opener << row.parameters << ": " << ::testing::PrintToString(policies);
    }
}

TEST_F(AlsaTest, ParametersReachTheStream)
{
    struct Case
    {
        const char* parameters;
        TimeSyncProtocol clock;
        std::uint16_t port;
        unsigned int mode;
    };
    for (const auto& [parameters, clock, port, mode] :
         {Case{",SOCKET_MODE=all,CLOCK=none", TimeSyncProtocol::Unknown, 0, 0666},
          Case{",SOCKET_MODE=group", TimeSyncProtocol::MonotonicSystemClock, 0, 0660},
          Case{",CLOCK=net,CLOCK_PORT=5637", TimeSyncProtocol::GstNetClock, 5637, 0600}})
    {
        const Pcm pcm = play({.parameters = parameters});
        ASSERT_EQ(pcm.error, 0) << errors;
        const kit::SenderProbe probe = kit::probeSender(getSocketName(), DefaultDeadline);
        ASSERT_TRUE(probe.initialInfo);
        EXPECT_EQ(probe.initialInfo->timeSyncProtocol, clock);
        EXPECT_EQ(probe.initialInfo->timeSyncPort, port);
        EXPECT_EQ(probe.initialInfo->timeSyncIPAddress, port != 0 ? "127.0.0.1" : "");
        EXPECT_EQ(probe.socketFileMode & 0777U, mode);
    }
    // A sender that runs as another user than the given one is not joined.
    kit::Producer producer = makeProducer();
    const std::string other = ",TIMEOUT=300ms,SENDER_USER=" + std::to_string(::geteuid() + 1);
    Pcm refusing = record({.parameters = other});
    const TimeValue begin = now();
    std::int16_t sample = 0;
    EXPECT_EQ(::snd_pcm_readi(refusing, &sample, 1), -EIO);
    EXPECT_GE(now() - begin, 290 * Millisecond);
    EXPECT_EQ(producer.checkReceivers(), 0U);
}

} // namespace

} // namespace vlx::testing
