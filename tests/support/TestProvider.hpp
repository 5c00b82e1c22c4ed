#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include <gst/gst.h>
#include <gst/net/gstnet.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace vlx::testing
{

/// Has GStreamer make now what it keeps for a minute for each provider that was ever followed: a
/// thread, whose name does not tell it from ours, and descriptors. Before the fixture looks at what
/// is there.
inline void prepareNetClock(const std::string& address, std::uint16_t port)
{
    gst_init(nullptr, nullptr);
    gst_object_unref(gst_net_client_clock_new(nullptr, address.c_str(), port, 0));
}

/// @return a loopback address that no other test process uses: while a provider is stopped, nobody
///         takes its port
inline std::string makeOwnAddress()
{
    const auto process = static_cast<unsigned int>(::getpid());
    return "127." + std::to_string(1 + (process >> 16) % 250) + "." +
           std::to_string((process >> 8) % 256) + "." + std::to_string(process % 256);
}

/// A machine that serves a clock: the monotonic one, shifted by an offset.
class TestProvider
{
public:
    explicit TestProvider(std::string address = makeOwnAddress()) : m_address(std::move(address))
    {
        gst_init(nullptr, nullptr);
    }

    ~TestProvider()
    {
        stop();
    }

    TestProvider(const TestProvider&) = delete;
    TestProvider& operator=(const TestProvider&) = delete;

    /// Starts to answer; a second time as after a reboot, on the port of before.
    void start(std::int64_t offsetNs)
    {
        m_offsetNs = offsetNs;
        auto* const clock = static_cast<GstClock*>(
            gst_object_ref_sink(g_object_new(GST_TYPE_SYSTEM_CLOCK, nullptr)));
        gst_clock_set_calibration(clock, 0, static_cast<GstClockTime>(offsetNs), 1, 1);
        m_provider = gst_net_time_provider_new(clock, m_address.c_str(), m_port);
        gst_object_unref(clock);
        ASSERT_NE(m_provider, nullptr);
        g_object_get(m_provider, "port", &m_port, nullptr);
    }

    void stop()
    {
        if (m_provider != nullptr)
            gst_object_unref(m_provider);
        m_provider = nullptr;
    }

    const std::string& getAddress() const
    {
        return m_address;
    }

    std::uint16_t getPort() const
    {
        return static_cast<std::uint16_t>(m_port);
    }

    std::int64_t getOffsetNs() const
    {
        return m_offsetNs;
    }

private:
    const std::string m_address;
    std::int64_t m_offsetNs = 0;
    gint m_port = 0;
    GstNetTimeProvider* m_provider = nullptr;
};

} // namespace vlx::testing
