#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <thread>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Pace.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::kit
{

namespace
{

constexpr std::int64_t Billion = 1'000'000'000;
// Long enough to contain the lowest level of a source that delivers in large pieces.
constexpr TimeValue WindowNs = 250'000'000;
// A source with a backlog shows it sooner.
constexpr TimeValue SettleNs = 1'000'000'000;

/// @return nanoseconds that samples take at the nominal rate, rounded down once
TimeValue toNominal(std::uint32_t rate, std::uint64_t samples)
{
    return StreamFormat{.rate = rate}.toNanoseconds(samples);
}

} // unnamed namespace

void Pace::begin(TimeValue timestamp)
{
    m_begin = timestamp;
    m_samples = 0;
    m_driftNs = 0;
    m_driftRest = 0;
    m_earliest = 0;
    m_control.forgetError();
    m_isObserving = false;
}

void Pace::changeRate(std::uint32_t rate)
{
    const TimeValue earliest = m_earliest;
    begin(getTimestamp());
    m_earliest = earliest;
    m_rate = rate;
}

TimeValue Pace::getTimestamp(std::uint64_t samples) const
{
    return m_begin + toNominal(m_rate, m_samples + samples) -
           static_cast<TimeValue>(measureDrift(samples).ns);
}

/// @return lead of the timestamps over nominal ones after a number of further samples
Pace::Drift Pace::measureDrift(std::uint64_t samples) const
{
    const auto length = static_cast<std::int64_t>(
        toNominal(m_rate, m_samples + samples) - toNominal(m_rate, m_samples));
    const std::int64_t rest = m_speedPpb * (length % Billion) + m_driftRest;
    return {m_driftNs + m_speedPpb * (length / Billion) + rest / Billion, rest % Billion};
}

TimeValue Pace::getDueTime() const
{
    return std::max(getTimestamp(), m_earliest);
}

void Pace::holdUntil(TimeValue time)
{
    m_earliest = time;
}

void Pace::advance(std::uint64_t samples, TimeValue now)
{
    m_earliest = now + getDuration(samples) / 2;
    const Drift drift = measureDrift(samples);
    m_driftNs = drift.ns;
    m_driftRest = drift.rest;
    m_samples += samples;
}

void Pace::sleepAfter(std::uint64_t samples)
{
    advance(samples, miscUtils::getMonotonicSysclockTime());
    std::this_thread::sleep_until(
        std::chrono::steady_clock::time_point(std::chrono::nanoseconds(getDueTime())));
}

void Pace::observeInput(std::uint64_t samples, std::uint64_t block, TimeValue now)
{
    if (!m_isObserving)
    {
        m_isObserving = true;
        m_observedSince = now;
        m_windowBegin = now;
        m_lowest = std::numeric_limits<std::int64_t>::max();
    }
    const TimeValue neededAt = getTimestamp(samples - samples % block);
    m_lowest = std::min(m_lowest, static_cast<std::int64_t>(neededAt - now - Margin));
    const TimeValue passed = now - m_windowBegin;
    if (passed < WindowNs)
        return;
    m_isFollowing = m_isFollowing || now - m_observedSince >= SettleNs;
    if (m_isFollowing)
    {
        m_control.update(
            static_cast<double>(m_lowest) / Billion, static_cast<double>(passed) / Billion);
        m_speedPpb = std::llround((m_control.getSpeed() - 1) * Billion);
    }
    m_windowBegin = now;
    m_lowest = std::numeric_limits<std::int64_t>::max();
}

void Pace::observeBacklog()
{
    m_isObserving = false;
    m_isFollowing = false;
    m_speedPpb = 0;
    m_control = makeControl();
}

double Pace::getSpeedPpm() const
{
    // If timestamps advance more slowly by this share, the source is slightly faster than the
    // share.
    const double share = static_cast<double>(m_speedPpb) / Billion;
    return share / (1 - share) * 1e6;
}

} // namespace vlx::kit
