#include "Clocks.hpp"

#include <utility>

#include <gst/net/gstnet.h>

#include <miscUtils/MiscUtils.hpp>

namespace vlx::gst
{

namespace
{

// Of several samples, the least interrupted one is used.
constexpr int NumOffsetSamples = 3;

// Four answers of a provider, 50 ms apart. On a busy machine some take 300 ms or get lost.
constexpr GstClockTime SyncTimeoutNs = 2'000'000'000;

constexpr auto ProvidesClock = static_cast<guint32>(GST_ELEMENT_FLAG_PROVIDE_CLOCK);

bool isMonotonicSystemClock(GstClock* clock)
{
    // Net client clocks are system clocks too, by inheritance.
    const char* const typeName = G_OBJECT_TYPE_NAME(clock);
    if (!GST_IS_SYSTEM_CLOCK(clock) || g_str_equal(typeName, "GstSystemClock") == FALSE)
        return false;

    GstClockType type = GST_CLOCK_TYPE_OTHER;
    g_object_get(clock, "clock-type", &type, nullptr);
    GstClockTime internal = 0;
    GstClockTime external = 0;
    GstClockTime rateNum = 1;
    GstClockTime rateDen = 1;
    gst_clock_get_calibration(clock, &internal, &external, &rateNum, &rateDen);
    return type == GST_CLOCK_TYPE_MONOTONIC && internal == external && rateNum == rateDen;
}

std::optional<ClockEndpoint> findProvider(GstClock* clock)
{
    // Exactly this type: an NTP clock inherits from it.
    if (G_OBJECT_TYPE(clock) != GST_TYPE_NET_CLIENT_CLOCK)
        return std::nullopt;
    gchar* address = nullptr;
    gint port = 0;
    g_object_get(clock, "address", &address, "port", &port, nullptr);
    ClockEndpoint endpoint{address != nullptr ? address : "", static_cast<std::uint16_t>(port)};
    g_free(address);
    return endpoint;
}

} // unnamed namespace

void PipelineClock::set(ObjectPtr<GstClock> clock)
{
    if (clock == m_clock)
        return;
    m_isMonotonic = clock && isMonotonicSystemClock(clock.get());
    m_provider = clock ? findProvider(clock.get()) : std::nullopt;
    m_clock = std::move(clock);
}

std::int64_t PipelineClock::getOffset() const
{
    return m_isMonotonic ? 0 : measureOffset(m_clock.get());
}

std::int64_t measureOffset(GstClock* clock)
{
    std::int64_t offset = 0;
    std::uint64_t shortest = UINT64_MAX;
    for (int i = 0; i < NumOffsetSamples; ++i)
    {
        const std::uint64_t before = miscUtils::getMonotonicSysclockTime();
        const GstClockTime time = gst_clock_get_time(clock);
        const std::uint64_t after = miscUtils::getMonotonicSysclockTime();
        if (after - before >= shortest)
            continue;
        shortest = after - before;
        offset = static_cast<std::int64_t>(time - (before + shortest / 2));
    }
    return offset;
}

ObjectPtr<GstClock> findClock(GstElement* element)
{
    if (GstClock* const clock = gst_element_get_clock(element))
        return ObjectPtr<GstClock>(clock);

    ObjectPtr<GstObject> top(GST_OBJECT(gst_object_ref(element)));
    while (GstObject* const parent = gst_object_get_parent(top.get()))
        top.reset(parent);
    if (!GST_IS_PIPELINE(top.get()))
        return nullptr;
    return ObjectPtr<GstClock>(gst_pipeline_get_pipeline_clock(GST_PIPELINE(top.get())));
}

void ProvidedClock::offer(const ClockEndpoint& endpoint)
{
    // GStreamer would resolve a host name, or an invalid one, within this call.
    if (g_hostname_is_ip_address(endpoint.address.c_str()) == FALSE || endpoint.port == 0)
        return;
    ObjectPtr<GstClock> clock(static_cast<GstClock*>(gst_object_ref_sink(
        gst_net_client_clock_new("vlx-clock", endpoint.address.c_str(), endpoint.port, 0))));
    if (gst_clock_wait_for_sync(clock.get(), SyncTimeoutNs) == FALSE)
    {
        GST_ELEMENT_WARNING(
            m_element, CORE, CLOCK,
            ("The network clock at %s:%u does not answer.", endpoint.address.c_str(),
             static_cast<unsigned>(endpoint.port)),
            (nullptr));
        return;
    }
    GstMessage* const message =
        gst_message_new_clock_provide(GST_OBJECT(m_element), clock.get(), TRUE);
    GST_OBJECT_LOCK(m_element);
    m_clock = std::move(clock);
    GST_OBJECT_FLAG_SET(m_element, ProvidesClock);
    GST_OBJECT_UNLOCK(m_element);
    gst_element_post_message(m_element, message);
}

void ProvidedClock::withdraw()
{
    GST_OBJECT_LOCK(m_element);
    const ObjectPtr<GstClock> clock = std::move(m_clock);
    GST_OBJECT_FLAG_UNSET(m_element, ProvidesClock);
    GST_OBJECT_UNLOCK(m_element);
    if (clock)
        gst_element_post_message(
            m_element, gst_message_new_clock_lost(GST_OBJECT(m_element), clock.get()));
}

ObjectPtr<GstClock> ProvidedClock::get() const
{
    GST_OBJECT_LOCK(m_element);
    GstClock* const clock = m_clock.get();
    if (clock != nullptr)
        gst_object_ref(clock);
    GST_OBJECT_UNLOCK(m_element);
    return ObjectPtr<GstClock>(clock);
}

} // namespace vlx::gst
