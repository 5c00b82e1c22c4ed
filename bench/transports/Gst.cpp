/// GStreamer elements in pipelines inside the process, without clock synchronisation and with queues
/// of one buffer: appsrc ! SINK and SOURCE ! appsink. Variant "shm": shmsink and shmsrc. "vlx":
/// vlxsink and vlxsrc, with the packets as samples of a stereo stream.

#include <cstring>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include "PeerPacket.hpp"

namespace vlx::bench
{
namespace
{

constexpr GstClockTime BufferDurationNs = 1'000'000;

std::string describeSender(const Link& link)
{
    const bool ours = link.variant == "vlx";
    return std::string("appsrc name=in format=time block=true max-buffers=1 ") +
           (ours ? "is-live=true do-timestamp=true caps=audio/x-raw,format=S16LE,rate=48000,"
                   "channels=2,layout=interleaved ! vlxsink socket-name=" +
                       link.name
                 : "! shmsink wait-for-connection=false socket-path=" + link.directory + "/" +
                       link.name + ".shm") +
           " sync=false async=false enable-last-sample=false";
}

std::string describeReceiver(const Link& link)
{
    return (link.variant == "vlx"
                ? "vlxsrc socket-name=" + link.name
                : "shmsrc is-live=true socket-path=" + link.directory + "/" + link.name + ".shm") +
           " ! appsink name=out sync=false max-buffers=1 enable-last-sample=false";
}

GstElement* parsePipeline(const std::string& description)
{
    gst_init(nullptr, nullptr);
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
    check(pipeline != nullptr && error == nullptr, "gst_parse_launch", error ? error->message : "");
    g_clear_error(&error);
    return pipeline;
}

bool play(GstElement* pipeline)
{
    return pipeline &&
           check(
               gst_element_set_state(pipeline, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE,
               "gst_element_set_state", "failed");
}

class GstPublisher : public Publisher
{
public:
    explicit GstPublisher(const Link& link)
        : m_packet(link.mediaBytes), m_pipeline(parsePipeline(describeSender(link)))
    {
    }

    ~GstPublisher() override
    {
        gst_object_unref(m_input);
        gst_element_set_state(m_pipeline, GST_STATE_NULL); // removes the shared memory's file
        gst_object_unref(m_pipeline);
    }

    bool open() override
    {
        if (!play(m_pipeline))
            return false;
        m_input = GST_APP_SRC(gst_bin_get_by_name(GST_BIN(m_pipeline), "in"));
        return m_input != nullptr;
    }

    std::span<std::uint8_t> media() override
    {
        return m_packet.media();
    }

    void send(std::uint64_t timestampNs) override
    {
        const auto bytes = m_packet.stamp(timestampNs);
        GstBuffer* buffer = gst_buffer_new_allocate(nullptr, bytes.size(), nullptr);
        gst_buffer_fill(buffer, 0, bytes.data(), bytes.size());
        GST_BUFFER_DURATION(buffer) = BufferDurationNs;
        gst_app_src_push_buffer(m_input, buffer);
    }

private:
    PeerPacket m_packet;
    GstElement* m_pipeline;
    GstAppSrc* m_input = nullptr;
};

class GstSubscriber : public Subscriber
{
public:
    explicit GstSubscriber(const Link& link) : m_pipeline(parsePipeline(describeReceiver(link))) {}

    bool start(FrameHandler handler) override
    {
        m_handler = std::move(handler);
        GstElement* output = gst_bin_get_by_name(GST_BIN(m_pipeline), "out");
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = onSample;
        gst_app_sink_set_callbacks(GST_APP_SINK(output), &callbacks, this, nullptr);
        gst_object_unref(output);
        return play(m_pipeline);
    }

private:
    static GstFlowReturn onSample(GstAppSink* sink, gpointer self)
    {
        GstSample* sample = gst_app_sink_pull_sample(sink);
        if (!sample)
            return GST_FLOW_EOS;
        GstBuffer* buffer = gst_sample_get_buffer(sample);
        GstMapInfo map;
        if (gst_buffer_map(buffer, &map, GST_MAP_READ))
        {
            deliverPeerPacket(static_cast<GstSubscriber*>(self)->m_handler, map.data, map.size);
            gst_buffer_unmap(buffer, &map);
        }
        gst_sample_unref(sample);
        return GST_FLOW_OK;
    }

    FrameHandler m_handler;
    GstElement* m_pipeline;
};

} // namespace

std::unique_ptr<Publisher> makePublisher(const Link& link)
{
    return std::make_unique<GstPublisher>(link);
}

std::unique_ptr<Subscriber> makeSubscriber(const Link& link)
{
    return std::make_unique<GstSubscriber>(link);
}

} // namespace vlx::bench
