#pragma once

/// What the elements have to know about the pipeline's clock.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <gst/gst.h>

namespace vlx::gst
{

struct ObjectDeleter
{
    void operator()(gpointer object) const
    {
        gst_object_unref(object);
    }
};

/// Owns one reference.
template <typename T>
using ObjectPtr = std::unique_ptr<T, ObjectDeleter>;

/// Where a network clock is served.
struct ClockEndpoint
{
    std::string address;
    std::uint16_t port = 0;

    bool operator==(const ClockEndpoint&) const = default;
};

/// @return whether the clock's time is CLOCK_MONOTONIC, to the nanosecond
bool isMonotonicSystemClock(GstClock* clock);

/// @return the provider that the clock follows; nothing if it is no net client clock
std::optional<ClockEndpoint> getNetClockEndpoint(GstClock* clock);

/// @return the clock's time less CLOCK_MONOTONIC, nanoseconds: exactly 0 for the monotonic system
///         clock, within microseconds for any other
std::int64_t getOffsetToMonotonic(GstClock* clock);

/// Tells an element's clock also before it is distributed, which happens on the way to PLAYING.
///
/// @return the element's clock; else the one that its pipeline would choose now; else null
ObjectPtr<GstClock> findClock(GstElement* element);

/// A network clock that an element provides to its pipeline.
///
/// @thread any
class ProvidedClock
{
public:
    explicit ProvidedClock(GstElement* element) : m_element(element) {}

    /// Follows a provider and offers the clock once it is synchronised: normally after 0.2 s; gives
    /// up after 2 s. On the way to PAUSED.
    void offer(const ClockEndpoint& endpoint);

    /// Coming from PAUSED; harmless without a clock.
    void withdraw();

    /// @return a new reference; null: none is offered
    ObjectPtr<GstClock> get() const;

private:
    GstElement* const m_element;
    ObjectPtr<GstClock> m_clock; // guarded by the object lock
};

} // namespace vlx::gst
