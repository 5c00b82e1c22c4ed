#pragma once

#include <cstdint>

#include <gst/gst.h>

#include "support/ChildProcess.hpp"

namespace vlx::testing
{

/// A buffer as it came out of an appsink.
struct Received
{
    std::string caps;
    std::string data;
    GstClockTime runningTime = 0;
    GstClockTime due = 0; ///< on the pipeline's clock
    GstClockTime duration = 0;
    bool discont = false;
    std::optional<GstClockTimeDiff> ptsOffset; ///< PTS minus DTS, if both are set
    std::uint64_t offset = 0;
    guint flags = 0;
    std::size_t memoryBytes = 0; ///< of the buffer's memory, also beyond the data
};

/// A pipeline of this process; stopped at the end.
class Pipeline
{
public:
    explicit Pipeline(const std::string& description);
    ~Pipeline();

    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    GstElement* get() const
    {
        return m_pipeline;
    }

    /// @return the element of this name; the pipeline owns it
    GstElement* find(const char* name) const;

    /// Sets a state without waiting for it.
    void set(GstState state) const;

    /// Sets a state and expects it to be reached before the deadline.
    void reach(GstState state) const;

    /// @param structure  name of the message's structure; null: any
    /// @return whether such a message was posted before the deadline; those before it are dropped
    bool waitForMessage(GstMessageType type, const char* structure = nullptr) const;

    /// @param sink  name of an appsink
    /// @return nothing at the end of the stream or at the deadline
    std::optional<Received> pull(const char* sink = "out") const;

    /// @return a count of an element's "stats"
    std::uint64_t getCount(const char* element, const char* field) const;

private:
    GstElement* m_pipeline;
};

/// A pipeline in a process of its own; killed at the end.
struct ChildPipeline : ChildProcess
{
    explicit ChildPipeline(const std::string& description)
        : ChildProcess({VLX_RUN_PIPELINE, description})
    {
    }
};

} // namespace vlx::testing
