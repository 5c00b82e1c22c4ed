#pragma once

/// Queries and conversions of the pipeline's clock.

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

/// Address and port of a network clock's provider.
struct ClockEndpoint
{
    std::string address;
    std::uint16_t port = 0;

    bool operator==(const ClockEndpoint&) const = default;
};

/// A pipeline's clock. What cannot change is asked of each clock once, not for each frame.
///
/// @thread one at a time
class PipelineClock
{
public:
    /// @param clock  null: none
    void set(ObjectPtr<GstClock> clock);

    GstClock* get() const
    {
        return m_clock.get();
    }

    /// @return the provider that the clock follows; not set if it is not a net client clock
    const std::optional<ClockEndpoint>& getProvider() const
    {
        return m_provider;
    }

    /// @return the clock's time minus CLOCK_MONOTONIC, nanoseconds: exactly 0 for the monotonic
    ///         system clock, within microseconds for any other
    /// @pre there is a clock
    std::int64_t getOffset() const;

private:
    ObjectPtr<GstClock> m_clock;
    bool m_isMonotonic = false; // its time is CLOCK_MONOTONIC, to the nanosecond
    std::optional<ClockEndpoint> m_provider;
};

/// @return the clock's time minus CLOCK_MONOTONIC, nanoseconds, within microseconds
std::int64_t measureOffset(GstClock* clock);

/// Returns an element's clock, even before it is distributed on the way to PLAYING.
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

    /// Follows a provider and provides the clock once it is synchronised, normally after 0.2 s.
    /// Gives up after 2 s. Call it on the way to PAUSED.
    void offer(const ClockEndpoint& endpoint);

    /// Stops providing the clock, if there is one. Call it when leaving PAUSED.
    void withdraw();

    /// @return a new reference, or null if no clock is provided
    ObjectPtr<GstClock> get() const;

private:
    GstElement* const m_element;
    ObjectPtr<GstClock> m_clock; // guarded by the object lock
};

} // namespace vlx::gst
