// Programs that play and record through ALSA, against the kit's other end.
//
// VLX_ALSA_SECONDS in the environment makes the measurement of the clock as long as wanted.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <numeric>
#include <set>
#include <thread>

#include <alsa/asoundlib.h>
#include <poll.h>
#include <sys/resource.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>
#include <vlxkit/Producer.hpp>

#include "support/VlxTest.hpp"

namespace vlx::testing
{

namespace
{

using namespace std::chrono_literals;
using audioUtils::PcmFormat;
using Samples = std::vector<std::int16_t>;

constexpr unsigned int Rate = 48000;
constexpr snd_pcm_uframes_t Period = 480;
constexpr snd_pcm_uframes_t NumPeriods = 20;
constexpr snd_pcm_uframes_t BufferSize = NumPeriods * Period;
constexpr TimeValue PeriodNs = 10'000'000;
constexpr kit::StreamFormat Mono = {PcmFormat::S16LE, Rate, 1};

TimeValue now()
{
    return static_cast<TimeValue>(std::chrono::steady_clock::now().time_since_epoch().count());
}

/// @return samples none of which is 0, each different from its neighbours
Samples makeSamples(std::size_t count)
{
    Samples samples(count);
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = static_cast<std::int16_t>(i % 30'000 + 1);
    return samples;
}

/// How a test opens its PCM.
struct PcmOptions
{
    snd_pcm_access_t access = SND_PCM_ACCESS_RW_INTERLEAVED;
    snd_pcm_format_t format = SND_PCM_FORMAT_S16_LE;
    unsigned int channels = 1;
    unsigned int rate = Rate;
    int mode = 0;
    snd_pcm_uframes_t period = Period;
    std::string parameters = ",REALTIME=try";
};

// On a busy machine an ordinary thread may come too late to take each frame.
constexpr kit::RealTime Prompt = {kit::RealTimeUse::Try, 10};

/// What a program opens. Closed at the end.
class Pcm
{
public:
    Pcm(const std::string& name, snd_pcm_stream_t stream, const PcmOptions& options = {})
    {
        const std::string device = "vlx:" + name + options.parameters;
        error = ::snd_pcm_open(&m_pcm, device.c_str(), stream, options.mode);
        if (error < 0)
            return;
        snd_pcm_hw_params_t* hardware = nullptr;
        ::snd_pcm_hw_params_malloc(&hardware);
        ::snd_pcm_hw_params_any(m_pcm, hardware);
        const snd_pcm_uframes_t buffer = NumPeriods * options.period;
        const std::array<std::function<int()>, 6> steps = {
            [&] { return ::snd_pcm_hw_params_set_access(m_pcm, hardware, options.access); },
            [&] { return ::snd_pcm_hw_params_set_format(m_pcm, hardware, options.format); },
            [&] { return ::snd_pcm_hw_params_set_channels(m_pcm, hardware, options.channels); },
            [&] { return ::snd_pcm_hw_params_set_rate(m_pcm, hardware, options.rate, 0); },
            [&] { return ::snd_pcm_hw_params_set_buffer_size(m_pcm, hardware, buffer); },
            [&]
            { return ::snd_pcm_hw_params_set_period_size(m_pcm, hardware, options.period, 0); }};
        for (const auto& step : steps)
        {
            if (error == 0)
                error = step();
        }
        if (error == 0)
            error = ::snd_pcm_hw_params(m_pcm, hardware);
        ::snd_pcm_hw_params_free(hardware);
    }

    ~Pcm()
    {
        close();
    }

    Pcm(const Pcm&) = delete;
    Pcm& operator=(const Pcm&) = delete;

    operator snd_pcm_t*() const // NOLINT(google-explicit-constructor)
    {
        return m_pcm;
    }

    void close()
    {
        if (m_pcm != nullptr)
            ::snd_pcm_close(m_pcm);
        m_pcm = nullptr;
    }

    int error = 0;

private:
    snd_pcm_t* m_pcm = nullptr;
};

/// A receiver that keeps everything.
class Listener
{
public:
    explicit Listener(const std::string& name)
        : m_consumer(
              {.name = name, .realTime = Prompt, .queue = {.time = 0ns, .bytes = 0, .frames = 0}})
    {
        EXPECT_TRUE(m_consumer.start());
    }

    ~Listener()
    {
        m_consumer.stop();
    }

    /// Takes frames until so many bytes have come in all.
    void wait(std::size_t size)
    {
        const auto end = std::chrono::steady_clock::now() + DefaultDeadline;
        while (bytes.size() < size && std::chrono::steady_clock::now() < end)
        {
            const auto item = m_consumer.read(100ms);
            if (!item)
                continue;
            if (const auto* const announced = std::get_if<kit::StreamFormat>(&*item))
                format = *announced;
            const auto* const frame = std::get_if<kit::ReceivedFrame>(&*item);
            if (frame == nullptr)
                continue;
            frames.push_back(*frame);
            offsets.push_back(bytes.size());
            bytes.insert(bytes.end(), frame->data.begin(), frame->data.end());
        }
        ASSERT_GE(bytes.size(), size);
    }

    Samples getSamples() const
    {
        Samples samples(bytes.size() / sizeof(std::int16_t));
        std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(std::int16_t));
        return samples;
    }

    std::vector<kit::FrameInfo> frames;
    std::vector<std::size_t> offsets; // bytes before each of them
    Buffer bytes;
    kit::StreamFormat format;

private:
    kit::Consumer m_consumer;
};

std::string errors; // what ALSA and the plugin have printed
std::mutex errorsMutex;

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
}

class AlsaTest : public VlxTest
{
protected:
    void SetUp() override
    {
        VlxTest::SetUp();
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

    static void write(snd_pcm_t* pcm, const Samples& samples)
    {
        for (std::size_t done = 0; done < samples.size();)
        {
            const snd_pcm_sframes_t count =
                ::snd_pcm_writei(pcm, samples.data() + done, samples.size() - done);
            ASSERT_GT(count, 0) << ::snd_strerror(static_cast<int>(count));
            done += static_cast<std::size_t>(count);
        }
    }

    static Samples read(snd_pcm_t* pcm, std::size_t count)
    {
        Samples samples(count);
        for (std::size_t done = 0; done < count;)
        {
            const snd_pcm_sframes_t now = ::snd_pcm_readi(pcm, samples.data() + done, count - done);
            EXPECT_GT(now, 0) << ::snd_strerror(static_cast<int>(now));
            if (now <= 0)
                return {};
            done += static_cast<std::size_t>(now);
        }
        return samples;
    }

    kit::Producer makeProducer(const kit::StreamFormat& format = Mono) const
    {
        kit::Producer producer({.name = getSocketName(), .realTime = Prompt});
        EXPECT_TRUE(producer.open(format));
        return producer;
    }

    /// Sends blocks of a period, each at its time.
    static ByteView toBytes(const Samples& samples, std::size_t first, std::size_t count)
    {
        return {
            reinterpret_cast<const unsigned char*>(samples.data() + first),
            count * sizeof(std::int16_t)};
    }

    static void send(kit::Producer& producer, const Samples& samples, TimeValue begin)
    {
        ASSERT_TRUE(producer.waitForReceivers(1, DefaultDeadline));
        for (std::size_t done = 0; done < samples.size(); done += Period)
        {
            const TimeValue due = begin + Mono.toNanoseconds(done);
            std::this_thread::sleep_until(
                std::chrono::steady_clock::time_point(std::chrono::nanoseconds(due)));
            const std::size_t count = std::min<std::size_t>(Period, samples.size() - done);
            EXPECT_TRUE(
                producer.send(due, Mono.toNanoseconds(count), toBytes(samples, done, count)));
        }
    }
};

struct Layout
{
    snd_pcm_access_t access;
    snd_pcm_format_t format;
    unsigned int channels;
    unsigned int rate;
    PcmFormat expected;
};

/// Every byte of every layout arrives.
class LayoutTest : public AlsaTest, public ::testing::WithParamInterface<Layout>
{
protected:
    static constexpr std::size_t NumFrames = 6;

    LayoutTest()
    {
        const auto [access, format, channels, rate, expected] = GetParam();
        const std::size_t width = audioUtils::bytesPerSample(expected);
        m_isPlanar = access == SND_PCM_ACCESS_RW_NONINTERLEAVED;
        m_isMapped = access == SND_PCM_ACCESS_MMAP_INTERLEAVED;
        m_length = NumFrames * (rate / 100);
        m_stride = m_isPlanar ? width : channels * width;
        m_program.resize(m_length * m_stride);
        std::iota(m_program.begin(), m_program.end(), std::uint8_t(1));
        // Every channel of a planar access is the same plane.
        for (std::size_t i = 0; i < m_length * channels * width; ++i)
            m_stream.push_back(
                m_program[m_isPlanar ? i / width / channels * width + i % width : i]);
    }

    static PcmOptions getOptions()
    {
        const Layout& layout = GetParam();
        return {layout.access, layout.format, layout.channels, layout.rate, 0, layout.rate / 100};
    }

    static kit::StreamFormat getFormat()
    {
        return {GetParam().expected, GetParam().rate, GetParam().channels};
    }

    /// Calls ALSA until everything is written or read.
    template <typename Planar, typename Mapped, typename Plain>
    void transfer(snd_pcm_t* pcm, Buffer& data, Planar planar, Mapped mapped, Plain plain) const
    {
        for (std::size_t done = 0; done < m_length;)
        {
            std::uint8_t* const place = data.data() + done * m_stride;
            std::vector<void*> planes(GetParam().channels, place);
            const snd_pcm_sframes_t count = m_isPlanar ? planar(pcm, planes.data(), m_length - done)
                                            : m_isMapped ? mapped(pcm, place, m_length - done)
                                                         : plain(pcm, place, m_length - done);
            ASSERT_GT(count, 0) << ::snd_strerror(static_cast<int>(count));
            done += static_cast<std::size_t>(count);
        }
    }

    bool m_isPlanar = false;
    bool m_isMapped = false;
    std::size_t m_length = 0;
    std::size_t m_stride = 0;
    Buffer m_program; // bytes as the program has them
    Buffer m_stream;  // and as the stream has them
};

TEST_P(LayoutTest, IsPlayed)
{
    Listener listener(getSocketName());
    Pcm pcm = play(getOptions());
    ASSERT_EQ(pcm.error, 0) << errors;
    transfer(pcm, m_program, ::snd_pcm_writen, ::snd_pcm_mmap_writei, ::snd_pcm_writei);
    EXPECT_EQ(::snd_pcm_drain(pcm), 0);
    listener.wait(m_stream.size());
    EXPECT_EQ(listener.format, getFormat());
    EXPECT_EQ(listener.bytes, m_stream);
    EXPECT_EQ(errors, "");
}

TEST_P(LayoutTest, IsRecorded)
{
    kit::Producer producer = makeProducer(getFormat());
    Pcm pcm = record(getOptions());
    ASSERT_EQ(pcm.error, 0) << errors;
    ASSERT_EQ(::snd_pcm_start(pcm), 0);
    ASSERT_TRUE(producer.waitForReceivers(1, DefaultDeadline));
    const std::size_t frameSize = m_stream.size() / NumFrames;
    const TimeValue begin = now();
    std::thread sender(
        [&]
        {
            for (std::size_t i = 0; i < NumFrames; ++i)
            {
                EXPECT_TRUE(producer.send(
                    begin + i * PeriodNs, PeriodNs,
                    ByteView(m_stream.data() + i * frameSize, frameSize)));
                std::this_thread::sleep_for(20ms); // a receiver takes one frame at a time
            }
        });
    Buffer recorded(m_program.size());
    transfer(pcm, recorded, ::snd_pcm_readn, ::snd_pcm_mmap_readi, ::snd_pcm_readi);
    sender.join();
    EXPECT_EQ(recorded, m_program);
    EXPECT_EQ(errors, "");
}

INSTANTIATE_TEST_SUITE_P(
    Layouts,
    LayoutTest,
    ::testing::Values(
        Layout{SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_FORMAT_S8, 1, 8000, PcmFormat::S8},
        Layout{SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_FORMAT_U8, 2, 11025, PcmFormat::U8},
        Layout{SND_PCM_ACCESS_MMAP_INTERLEAVED, SND_PCM_FORMAT_S16_LE, 6, 44100, PcmFormat::S16LE},
        Layout{SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_FORMAT_S16_BE, 2, 48000, PcmFormat::S16BE},
        Layout{
            SND_PCM_ACCESS_RW_NONINTERLEAVED, SND_PCM_FORMAT_S24_3LE, 2, 48000, PcmFormat::S24LE},
        Layout{SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_FORMAT_S24_3BE, 8, 96000, PcmFormat::S24BE},
        Layout{SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_FORMAT_S32_LE, 2, 384000, PcmFormat::S32LE},
        Layout{SND_PCM_ACCESS_MMAP_INTERLEAVED, SND_PCM_FORMAT_S32_BE, 64, 8000, PcmFormat::S32BE},
        Layout{SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_FORMAT_FLOAT_LE, 2, 192000, PcmFormat::F32LE},
        Layout{SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_FORMAT_FLOAT_BE, 1, 48000, PcmFormat::F32BE},
        Layout{
            SND_PCM_ACCESS_RW_NONINTERLEAVED, SND_PCM_FORMAT_FLOAT64_LE, 3, 48000,
            PcmFormat::F64LE},
        Layout{
            SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_FORMAT_FLOAT64_BE, 2, 48000, PcmFormat::F64BE}),
    [](const auto& each) { return std::string(toString(each.param.expected)); });

TEST_F(AlsaTest, PlaysByTheClockAndReportsTheDelay)
{
    // A rate at which no period is a whole number of nanoseconds.
    constexpr unsigned int OddRate = 44100;
    Listener listener(getSocketName());
    Pcm pcm = play({.rate = OddRate, .period = 441});
    ASSERT_EQ(pcm.error, 0) << errors;
    const TimeValue begin = now();
    const char* const seconds = std::getenv("VLX_ALSA_SECONDS");
    const std::size_t numPeriods = seconds != nullptr ? 100 * std::stoul(seconds) : 50;
    const Samples samples = makeSamples(numPeriods * 441);
    struct Look
    {
        TimeValue from, to; // when
        std::size_t written;
        snd_pcm_sframes_t delay;
    };
    std::vector<Look> looks;
    const std::size_t lead = NumPeriods / 2 * 441;
    write(pcm, Samples(samples.data(), samples.data() + lead));
    for (std::size_t done = lead; done < samples.size(); done += 441)
    {
        const auto* const place = samples.data() + done;
        write(pcm, Samples(place, place + 441));
        Look look = {now(), 0, done + 441, 0};
        ASSERT_EQ(::snd_pcm_delay(pcm, &look.delay), 0);
        look.to = now();
        looks.push_back(look);
        snd_pcm_uframes_t available = 0;
        snd_htimestamp_t stamp{};
        ASSERT_EQ(::snd_pcm_htimestamp(pcm, &available, &stamp), 0);
        EXPECT_LE(available, NumPeriods * 441);
        EXPECT_GE(stamp.tv_sec, static_cast<std::time_t>(begin / 1'000'000'000));
    }
    ASSERT_EQ(::snd_pcm_drain(pcm), 0);
    EXPECT_GE(now() - begin, numPeriods * PeriodNs);
    listener.wait(samples.size() * 2);
    EXPECT_EQ(listener.getSamples(), samples);
    const TimeValue start = listener.frames[0].timestamp;
    for (const Look& look : looks)
    {
        const auto toPlayed = [&](TimeValue time)
        { return (static_cast<double>(time) - static_cast<double>(start)) * 1e-9 * OddRate; };
        const auto played = static_cast<double>(look.written) - static_cast<double>(look.delay);
        EXPECT_GE(played, toPlayed(look.from) - 441);
        EXPECT_LE(played, toPlayed(look.to) + 441);
    }
    for (std::size_t i = 0; i < listener.frames.size(); ++i)
    {
        const TimeValue due = start + listener.offsets[i] / 2 * 1'000'000'000 / OddRate;
        EXPECT_EQ(listener.frames[i].timestamp, due);
        EXPECT_GE(listener.frames[i].arrival, due); // never before it is due
    }
}

TEST_F(AlsaTest, UnderrunIsAGapOfItsLength)
{
    Listener listener(getSocketName());
    Pcm pcm = play();
    const Samples samples = makeSamples(3 * Period);
    write(pcm, samples);
    ASSERT_TRUE(waitFor([&] { return ::snd_pcm_avail(pcm) == -EPIPE; }));
    EXPECT_EQ(::snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
    EXPECT_EQ(::snd_pcm_writei(pcm, samples.data(), 1), -EPIPE);
    std::array<pollfd, 1> descriptors{};
    unsigned short events = 0;
    ASSERT_EQ(::snd_pcm_poll_descriptors(pcm, descriptors.data(), 1), 1);
    EXPECT_EQ(::poll(descriptors.data(), 1, 0), 1);
    ::snd_pcm_poll_descriptors_revents(pcm, descriptors.data(), 1, &events);
    EXPECT_TRUE((events & POLLERR) != 0);
    std::this_thread::sleep_for(50ms); // the gap
    ASSERT_EQ(::snd_pcm_prepare(pcm), 0);
    write(pcm, samples);
    ASSERT_EQ(::snd_pcm_drain(pcm), 0);
    listener.wait(samples.size() * 4);
    const auto second =
        std::find(listener.offsets.begin(), listener.offsets.end(), samples.size() * 2);
    ASSERT_NE(second, listener.offsets.end());
    const auto index = static_cast<std::size_t>(second - listener.offsets.begin());
    EXPECT_EQ(
        static_cast<TimeValue>(listener.frames[index].gapNs),
        listener.frames[index].timestamp - listener.frames[0].timestamp - 3 * PeriodNs);
    EXPECT_GE(listener.frames[index].gapNs, 50'000'000);
}

TEST_F(AlsaTest, ASampleIsTakenWhenItIsDue)
{
    Listener listener(getSocketName());
    Pcm pcm = play({.period = 4800});
    Samples samples = makeSamples(19'200);
    write(pcm, samples); // 400 ms
    const snd_pcm_sframes_t back = ::snd_pcm_rewind(pcm, 9600);
    ASSERT_EQ(back, 9600);
    std::fill(samples.end() - back, samples.end(), std::int16_t(-7));
    write(pcm, Samples(samples.end() - back, samples.end()));
    ASSERT_EQ(::snd_pcm_drain(pcm), 0);
    listener.wait(samples.size() * 2);
    EXPECT_EQ(listener.getSamples(), samples);
}

TEST_F(AlsaTest, PauseIsAGapAndDropEndsAtOnce)
{
    Listener listener(getSocketName());
    Pcm pcm = play({.period = 4800});
    constexpr std::size_t NumWritten = 10; // 1 s
    write(pcm, makeSamples(NumWritten * 4800));
    listener.wait(1920); // it plays
    ASSERT_EQ(::snd_pcm_pause(pcm, 1), 0);
    snd_pcm_sframes_t before = 0;
    snd_pcm_sframes_t after = 0;
    std::this_thread::sleep_for(100ms); // the pause: nothing happens in it
    ::snd_pcm_delay(pcm, &before);
    std::this_thread::sleep_for(50ms);
    ::snd_pcm_delay(pcm, &after);
    EXPECT_EQ(before, after);
    EXPECT_GE(before, NumWritten * 4800 - 8640);
    const auto played =
        static_cast<std::size_t>(::snd_pcm_avail(pcm)) - (NumPeriods - NumWritten) * 4800;
    ASSERT_EQ(::snd_pcm_pause(pcm, 0), 0);
    listener.wait(played * 2 + 1); // the next frame
    std::int64_t gaps = 0;
    for (const kit::FrameInfo& frame : listener.frames)
        gaps += frame.gapNs;
    EXPECT_GE(gaps, 100'000'000);
    ASSERT_EQ(::snd_pcm_pause(pcm, 1), 0); // what was paused can be dropped, too
    ASSERT_EQ(::snd_pcm_drop(pcm), 0);
    EXPECT_EQ(::snd_pcm_state(pcm), SND_PCM_STATE_SETUP);
    ASSERT_EQ(::snd_pcm_prepare(pcm), 0);
    EXPECT_EQ(::snd_pcm_avail(pcm), NumPeriods * 4800);
    write(pcm, Samples(4800, -7)); // and then it plays anew
    while (!HasFatalFailure() && listener.getSamples().back() != -7)
        listener.wait(listener.bytes.size() + 1);
    const Samples heard = listener.getSamples();
    EXPECT_LT(std::find(heard.begin(), heard.end(), -7) - heard.begin(), NumWritten * 4800);
}

TEST_F(AlsaTest, PollWakesTheProgramWhenAPeriodIsFreeAndNeverElse)
{
    Listener listener(getSocketName());
    Pcm pcm = play({.mode = SND_PCM_NONBLOCK});
    const Samples samples = makeSamples(3 * BufferSize);
    std::array<pollfd, 1> descriptors{};
    ASSERT_EQ(::snd_pcm_poll_descriptors_count(pcm), 1);
    ASSERT_EQ(::snd_pcm_poll_descriptors(pcm, descriptors.data(), 1), 1);
    std::size_t wakeups = 0;
    for (std::size_t done = 0; done < samples.size();)
    {
        ASSERT_EQ(::poll(descriptors.data(), 1, 5000), 1);
        unsigned short events = 0;
        ++wakeups;
        ASSERT_EQ(::snd_pcm_poll_descriptors_revents(pcm, descriptors.data(), 1, &events), 0);
        if ((events & POLLOUT) == 0)
            continue;
        EXPECT_GE(::snd_pcm_avail_update(pcm), static_cast<snd_pcm_sframes_t>(Period));
        const snd_pcm_sframes_t count =
            ::snd_pcm_writei(pcm, samples.data() + done, samples.size() - done);
        ASSERT_GT(count, 0);
        done += static_cast<std::size_t>(count);
        EXPECT_TRUE(done == samples.size() || ::snd_pcm_writei(pcm, samples.data(), 1) == -EAGAIN);
    }
    EXPECT_LE(wakeups, 2 * NumPeriods + 5);
    int drained = 0;
    while ((drained = ::snd_pcm_drain(pcm)) == -EAGAIN && ::poll(descriptors.data(), 1, 5000) == 1)
        ++wakeups;
    EXPECT_EQ(drained, 0);
    EXPECT_LE(wakeups, 2 * NumPeriods + 10);
    listener.wait(samples.size() * 2);
    EXPECT_EQ(listener.getSamples(), samples);
}

TEST_F(AlsaTest, ATakenNameIsBusyUntilItIsClosed)
{
    Pcm first = play();
    ASSERT_EQ(first.error, 0) << errors;
    EXPECT_EQ(play().error, -EBUSY);
    EXPECT_NE(
        errors.find("\"" + getSocketName() + "\" is taken by another sender"), std::string::npos)
        << errors;
    first.close();
    EXPECT_EQ(play().error, 0);
}

TEST_F(AlsaTest, RecordsInTheFormatOfTheStreamOnly)
{
    const kit::Producer producer = makeProducer();
    EXPECT_EQ(record({.rate = 44100}).error, -EINVAL);
    EXPECT_EQ(record({.channels = 2}).error, -EINVAL);
    EXPECT_EQ(record({.format = SND_PCM_FORMAT_S32_LE}).error, -EINVAL);
    EXPECT_EQ(record().error, 0);
}

TEST_F(AlsaTest, AGapIsSilenceOfItsLength)
{
    kit::Producer producer = makeProducer();
    Pcm pcm = record({.period = 4800});
    ASSERT_EQ(::snd_pcm_start(pcm), 0);
    const Samples samples = makeSamples(2 * Period);
    const TimeValue begin = now();
    send(producer, samples, begin);
    // Longer than a frame may be late: silence flows before the gap has ended.
    send(producer, samples, begin + 400'000'000);
    Samples expected = samples;
    expected.resize(40 * Period);
    expected.insert(expected.end(), samples.begin(), samples.end());
    EXPECT_EQ(read(pcm, expected.size()), expected);
}

TEST_F(AlsaTest, WhatComesAfterItsSilenceIsLeftOut)
{
    kit::Producer producer = makeProducer();
    Pcm pcm = record({.period = 4800});
    ASSERT_EQ(::snd_pcm_start(pcm), 0);
    const Samples samples = makeSamples(150 * Period);
    const TimeValue begin = now();
    send(producer, Samples(samples.begin(), samples.begin() + Period), begin);
    EXPECT_EQ(read(pcm, 20 * Period).back(), 0); // it is late, and silence flows
    EXPECT_TRUE(
        producer.send(begin + PeriodNs, 149 * PeriodNs, toBytes(samples, Period, 149 * Period)));
    EXPECT_EQ(read(pcm, 130 * Period).back(), samples.back());
}

TEST_F(AlsaTest, AStreamThatReturnsContinuesInTime)
{
    const Samples samples = makeSamples(2 * Period);
    Pcm pcm = record({.period = 4800});
    ASSERT_EQ(::snd_pcm_start(pcm), 0);
    const TimeValue begin = now();
    {
        kit::Producer producer = makeProducer();
        send(producer, samples, begin);
    }
    const Samples silence = read(pcm, 14'400); // it comes at the pace of the clock
    EXPECT_GE(now() - begin, 300'000'000U);
    kit::Producer producer = makeProducer();
    const TimeValue back = now();
    send(producer, samples, back);
    Samples recorded = silence;
    while (recorded.back() == 0)
        recorded.push_back(read(pcm, 1).at(0));
    const auto missing = static_cast<double>(recorded.size() - 1);
    EXPECT_NEAR(missing, static_cast<double>(Mono.toSamples(back - begin)), 1);
}

TEST_F(AlsaTest, ReportsWhatARecordingCannotContinueWith)
{
    struct Case
    {
        const char* parameters;
        int error;
    };
    for (const auto& [parameters, error] :
         {Case{"", -ENODEV}, Case{",TIMEOUT=100ms", -EIO}, Case{",ON_GAP=xrun", -EPIPE}})
    {
        SCOPED_TRACE(parameters);
        kit::Producer producer = makeProducer();
        Pcm pcm = record({.parameters = parameters});
        ASSERT_EQ(::snd_pcm_start(pcm), 0);
        send(producer, makeSamples(Period), now());
        EXPECT_EQ(read(pcm, Period), makeSamples(Period));
        if (error == -ENODEV)
        {
            ASSERT_TRUE(producer.setFormat({PcmFormat::S16LE, 44100, 1}));
        }
        Samples samples(Period);
        EXPECT_EQ(::snd_pcm_readi(pcm, samples.data(), Period), error);
        if (error == -EPIPE)
        {
            ASSERT_EQ(::snd_pcm_prepare(pcm), 0);
            ASSERT_EQ(::snd_pcm_start(pcm), 0);
            send(producer, makeSamples(Period), now());
            EXPECT_EQ(read(pcm, Period), makeSamples(Period));
        }
    }
}

TEST_F(AlsaTest, AReaderThatStopsGetsAnOverrun)
{
    kit::Producer producer = makeProducer();
    Pcm pcm = record();
    ASSERT_EQ(::snd_pcm_start(pcm), 0);
    send(producer, makeSamples(BufferSize + 3 * Period), now());
    Samples samples(Period);
    ASSERT_TRUE(waitFor([&] { return ::snd_pcm_avail(pcm) == -EPIPE; }));
    EXPECT_EQ(::snd_pcm_readi(pcm, samples.data(), Period), -EPIPE);
}

TEST_F(AlsaTest, WaitingCostsNothing)
{
    Pcm pcm = record({.mode = SND_PCM_NONBLOCK}); // no sender
    ASSERT_EQ(::snd_pcm_start(pcm), 0);
    std::array<pollfd, 1> descriptors{};
    ASSERT_EQ(::snd_pcm_poll_descriptors(pcm, descriptors.data(), 1), 1);
    rusage before{};
    rusage after{};
    ::getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(::poll(descriptors.data(), 1, 1000), 0);
    ::getrusage(RUSAGE_SELF, &after);
    const auto toSeconds = [](const rusage& usage)
    {
        return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
    };
    EXPECT_LT(toSeconds(after) - toSeconds(before), 0.1);
}

TEST_F(AlsaTest, LeavesNothingBehindAndSaysNothing)
{
    ::testing::internal::CaptureStderr();
    for (int i = 0; i < 500; ++i)
    {
        EXPECT_EQ(
            play({.mode = SND_PCM_NONBLOCK, .parameters = i % 50 == 0 ? "" : ",CLOCK=bad"}).error,
            i % 50 == 0 ? 0 : -EINVAL);
        if (i % 100 == 0)
            ::snd_config_update_free_global();
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(AlsaTest, AForkedChildClosesWhatItGotAndItsParentPlaysOn)
{
    Listener listener(getSocketName());
    Pcm pcm = play();
    const Samples samples = makeSamples(2 * BufferSize);
    write(pcm, Samples(samples.begin(), samples.begin() + BufferSize));
    EXPECT_TRUE(runInFork(
        [&]
        {
            std::int16_t sample = 0;
            return ::snd_pcm_writei(pcm, &sample, 1) < 0 && ::snd_pcm_close(pcm) == 0;
        }));
    write(pcm, Samples(samples.begin() + BufferSize, samples.end()));
    EXPECT_EQ(::snd_pcm_drain(pcm), 0);
    listener.wait(samples.size() * 2);
    EXPECT_EQ(listener.getSamples(), samples);
}

TEST_F(AlsaTest, ThreadsInheritTheOpenersRealTimeScheduling)
{
    bool isPermitted = false;
    std::set<int> policies;
    std::thread opener(
        [&]
        {
            const sched_param parameters{5};
            isPermitted = ::pthread_setschedparam(::pthread_self(), SCHED_FIFO, &parameters) == 0;
            Pcm pcm = play({.parameters = ""});
            for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
            {
                std::string name;
                std::getline(std::ifstream(task.path() / "comm"), name);
                if (name == "vlx-playback" || name == "vlx-listener")
                    policies.insert(::sched_getscheduler(std::stoi(task.path().filename())));
            }
        });
    opener.join();
    if (!isPermitted)
        GTEST_SKIP() << "needs the permission for real-time scheduling";
    EXPECT_EQ(policies, std::set<int>{SCHED_FIFO});
}

TEST_F(AlsaTest, ParametersReachTheStream)
{
    const Pcm pcm = play({.parameters = ",SOCKET_MODE=all,CLOCK=none"});
    ASSERT_EQ(pcm.error, 0) << errors;
    const kit::SenderProbe probe = kit::probeSender(getSocketName(), DefaultDeadline);
    ASSERT_TRUE(probe.initialInfo);
    EXPECT_EQ(probe.initialInfo->timeSyncProtocol, TimeSyncProtocol::Unknown);
    EXPECT_EQ(probe.socketFileMode & 0777U, 0666U);

    // A sender that runs as another user than the given one is not joined.
    kit::Producer producer({.name = getSocketName() + "-2"});
    ASSERT_TRUE(producer.open(Mono));
    const std::string other = ",TIMEOUT=300ms,SENDER_USER=" + std::to_string(::geteuid() + 1);
    Pcm refusing(getSocketName() + "-2", SND_PCM_STREAM_CAPTURE, {.parameters = other});
    ASSERT_EQ(refusing.error, 0) << errors;
    std::int16_t sample = 0;
    EXPECT_EQ(::snd_pcm_readi(refusing, &sample, 1), -EIO);
    EXPECT_EQ(producer.checkReceivers(), 0U);
}

TEST_F(AlsaTest, TwoThreadsPlayOnTwoDevices)
{
    std::vector<std::thread> threads;
    for (const char* const suffix : {"-a", "-b"})
    {
        threads.emplace_back(
            [this, suffix]
            {
                Listener listener(getSocketName() + suffix);
                Pcm pcm(getSocketName() + suffix, SND_PCM_STREAM_PLAYBACK);
                const Samples samples = makeSamples(20 * Period);
                write(pcm, samples);
                EXPECT_EQ(::snd_pcm_drain(pcm), 0);
                listener.wait(samples.size() * 2);
                EXPECT_EQ(listener.getSamples(), samples);
            });
    }
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace

} // namespace vlx::testing
