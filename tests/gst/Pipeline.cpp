#include "gst/Pipeline.hpp"

#include <gst/app/gstappsink.h>

namespace vlx::testing
{

namespace
{

constexpr GstClockTime DeadlineNs = static_cast<GstClockTime>(DefaultDeadline.count()) * GST_SECOND;

} // unnamed namespace

Pipeline::Pipeline(const std::string& description)
{
    GError* error = nullptr;
    m_pipeline =
        gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
    if (error != nullptr)
        ADD_FAILURE() << description << ": " << error->message;
    g_clear_error(&error);
}

Pipeline::~Pipeline()
{
    if (m_pipeline == nullptr)
        return;
    gst_element_set_state(m_pipeline, GST_STATE_NULL);
    gst_object_unref(m_pipeline);
}

GstElement* Pipeline::find(const char* name) const
{
    GstElement* const element = gst_bin_get_by_name(GST_BIN(m_pipeline), name);
    if (element != nullptr)
        gst_object_unref(element);
    return element;
}

void Pipeline::set(GstState state) const
{
    EXPECT_NE(gst_element_set_state(m_pipeline, state), GST_STATE_CHANGE_FAILURE);
}

void Pipeline::reach(GstState state) const
{
    set(state);
    GstState reached = GST_STATE_VOID_PENDING;
    gst_element_get_state(m_pipeline, &reached, nullptr, DeadlineNs);
    EXPECT_EQ(reached, state);
}

bool Pipeline::waitForMessage(GstMessageType type, const char* structure) const
{
    GstBus* const bus = gst_element_get_bus(m_pipeline);
    bool found = false;
    while (!found)
    {
        GstMessage* const message = gst_bus_timed_pop_filtered(bus, DeadlineNs, type);
        if (message == nullptr)
            break;
        found = structure == nullptr || gst_message_has_name(message, structure) != FALSE;
        gst_message_unref(message);
    }
    gst_object_unref(bus);
    return found;
}

std::optional<Received> Pipeline::pull(const char* sink) const
{
    GstSample* const sample = gst_app_sink_try_pull_sample(GST_APP_SINK(find(sink)), DeadlineNs);
    if (sample == nullptr)
        return std::nullopt;
    Received received;
    gchar* const caps = gst_caps_to_string(gst_sample_get_caps(sample));
    received.caps = caps;
    g_free(caps);
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    GstMapInfo map;
    EXPECT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
    received.data.assign(static_cast<const char*>(static_cast<void*>(map.data)), map.size);
    gst_buffer_unmap(buffer, &map);
    received.runningTime = gst_segment_to_running_time(
        gst_sample_get_segment(sample), GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
    received.due = received.runningTime + gst_element_get_base_time(m_pipeline);
    received.duration = GST_BUFFER_DURATION(buffer);
    if (GST_BUFFER_DTS_IS_VALID(buffer) && GST_BUFFER_PTS_IS_VALID(buffer))
        received.ptsOffset = GST_CLOCK_DIFF(GST_BUFFER_DTS(buffer), GST_BUFFER_PTS(buffer));
    received.offset = GST_BUFFER_OFFSET(buffer);
    received.flags = GST_BUFFER_FLAGS(buffer);
    received.discont = GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT) != FALSE;
    gst_buffer_get_sizes(buffer, nullptr, &received.memoryBytes);
    gst_sample_unref(sample);
    return received;
}

std::uint64_t Pipeline::getCount(const char* element, const char* field) const
{
    GstStructure* stats = nullptr;
    g_object_get(find(element), "stats", &stats, nullptr);
    const GValue* const value = gst_structure_get_value(stats, field);
    std::uint64_t count = 0;
    if (value == nullptr)
        ADD_FAILURE() << "no " << field;
    else
        count = G_VALUE_HOLDS_UINT(value) ? g_value_get_uint(value) : g_value_get_uint64(value);
    gst_structure_free(stats);
    return count;
}

} // namespace vlx::testing
