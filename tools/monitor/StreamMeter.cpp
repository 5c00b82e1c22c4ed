#include "StreamMeter.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include "common/ExitCodes.hpp"
#include "common/NetClock.hpp"
#include "common/SenderReport.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

constexpr auto PeakHoldTime = std::chrono::seconds(2);

} // unnamed namespace

void LevelMeter::setChannels(std::size_t number)
{
    m_channels.assign(number, {});
}

void LevelMeter::add(const std::vector<float>& values)
{
    for (std::size_t i = 0; i < values.size(); ++i)
    {
        Channel& channel = m_channels[i % m_channels.size()];
        const double value = static_cast<double>(values[i]);
        channel.peak = std::max(channel.peak, std::abs(value));
        channel.squares += value * value;
        ++channel.samples;
    }
}

std::vector<ChannelLevel> LevelMeter::take(TimePoint now)
{
    std::vector<ChannelLevel> levels;
    for (Channel& channel : m_channels)
    {
        if (channel.peak >= channel.heldPeak || now - channel.heldSince > PeakHoldTime)
        {
            channel.heldPeak = channel.peak;
            channel.heldSince = now;
        }
        if (channel.samples > 0)
            levels.push_back(
                {channel.peak, std::sqrt(channel.squares / static_cast<double>(channel.samples)),
                 channel.heldPeak});
        channel = {.heldPeak = channel.heldPeak, .heldSince = channel.heldSince};
    }
    return levels;
}

StreamMeter::StreamMeter(
    const kit::ConsumerOptions& options,
    std::function<void(const std::string&)> onEvent)
    : m_name(options.name),
      m_onEvent(std::move(onEvent)),
      m_consumer(
          options,
          {.onFrame = [this](const kit::Frame& frame) { handleFrame(frame); },
           .onFormat = [this](const kit::StreamFormat& format) { handleFormat(format); },
           .onCodec = [this](const kit::CodecFormat& codec) { handleCodec(codec); },
           .onEvent = [this](const kit::ConsumerEvent& event) { handleEvent(event); }})
{
}

void StreamMeter::start()
{
    if (const kit::Status status = m_consumer.start(); !status)
        throw CommandFailure(ExitCode::Failed, status.getText());
}

void StreamMeter::handleFormat(const kit::StreamFormat& format)
{
    m_format = format;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_levelMeter.setChannels(format.channels);
    m_codec.reset();
}

void StreamMeter::handleCodec(const kit::CodecFormat& codec)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_levelMeter.setChannels(0);
    m_codec = codec;
}

void StreamMeter::handleFrame(const kit::Frame& frame)
{
    if (m_codec) // which has no levels
        return;
    const std::size_t usable = frame.data.size() - frame.data.size() % m_format.getBytesPerSample();
    decodeLevels(ByteView(frame.data).first(usable), m_format.sampleFormat, m_levels);

    const std::lock_guard<std::mutex> lock(m_mutex);
    m_levelMeter.add(m_levels);
}

void StreamMeter::handleEvent(const kit::ConsumerEvent& event)
{
    const bool isObstacle = event.kind != kit::ConsumerEvent::Kind::Joined &&
                            event.kind != kit::ConsumerEvent::Kind::Lost;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_notice = event.text;
        m_obstacle = isObstacle ? toString(event.kind) : "";
    }
    m_onEvent(m_name + ": " + event.text);
}

StreamSnapshot StreamMeter::takeSnapshot()
{
    const auto now = SteadyClock::now();
    StreamSnapshot snapshot;
    snapshot.name = m_name;
    snapshot.total = m_consumer.getStatistics();
    lookAtClock(snapshot.total);
    snapshot.seconds = std::chrono::duration<double>(now - m_snapshotTime).count();
    snapshot.frames = snapshot.total.frames - m_before.frames;
    snapshot.bytes = snapshot.total.bytes - m_before.bytes;
    snapshot.totalAges = m_consumer.getAges();
    snapshot.ages = snapshot.totalAges;
    snapshot.ages -= m_agesBefore;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        snapshot.codec = m_codec;
        snapshot.levels = m_levelMeter.take(now);
        snapshot.state = m_obstacle.empty() ? toString(snapshot.total.state) : m_obstacle;
        snapshot.notice = m_notice;
    }
    m_before = snapshot.total;
    m_agesBefore = snapshot.totalAges;
    m_snapshotTime = now;
    return snapshot;
}

void StreamMeter::lookAtClock(kit::ConsumerStatistics& statistics)
{
    const kit::ConsumerClock clock = m_consumer.getClock();
    if (clock.type != Receiver::StreamClockType::SyncedNetClock)
        return;
    if (m_provider != std::pair(clock.address, clock.port))
    {
        m_provider = {clock.address, clock.port};
        follow(m_netClock, clock.address, clock.port);
    }
    if (!m_netClock.isSynchronized())
        statistics.clockSynchronized = false;
}

} // namespace vlx::tool
