/// GStreamer elements in pipelines inside the process, without clock synchronisation and with
/// queues of one buffer: appsrc ! SINK and SOURCE ! appsink. Variant "shm": shmsink and shmsrc.
/// "vlx": vlxsink and vlxsrc; "vlx-shared": with frames in shared memory. Packets are samples of an
/// audio stream whose rate is that of the packets; all variants fill up the last sample. Packets of
/// "vlx-video" are pictures of 1080p video instead. Buffers come from the allocator that the sink
/// offers, as with GStreamer's own sources.

#include <deque>
#include <memory>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include "Transport.hpp"

namespace vlx::bench
{
namespace
{

constexpr std::size_t Channels = 36; // the largest frames then have a rate that audio may have
constexpr std::size_t BytesPerSample = 4 * Channels;

std::size_t countSamples(std::size_t packetBytes)
{
    return (packetBytes + BytesPerSample - 1) / BytesPerSample;
}

bool isOurs(const Plan& plan)
{
    return plan.variant.starts_with("vlx");
}

std::string describeMedia(const Plan& plan)
{
    if (plan.variant == "vlx-video")
        return "video/x-raw,format=I420,width=1920,height=1080,framerate=" +
               std::to_string(plan.rate) + "/1";
    return "audio/x-raw,format=S32LE,layout=interleaved,channel-mask=(bitmask)0,channels=" +
           std::to_string(Channels) +
           ",rate=" + std::to_string(countSamples(sizeof(PacketHeader) + plan.bytes) * plan.rate);
}

std::string describeSender(const Plan& plan)
{
    return std::string("appsrc name=end format=time block=true max-buffers=1 ") +
           (isOurs(plan)
                ? "is-live=true do-timestamp=true caps=" + describeMedia(plan) +
                      " ! vlxsink socket-name=" + plan.name +
                      (plan.variant == "vlx" ? "" : " shared-memory=always")
                : "! shmsink wait-for-connection=false socket-path=" + plan.getPath(".shm")) +
           " sync=false async=false enable-last-sample=false";
}

std::string describeReceiver(const Plan& plan)
{
    return (isOurs(plan) ? "vlxsrc socket-name=" + plan.name
                         : "shmsrc is-live=true socket-path=" + plan.getPath(".shm")) +
           " ! appsink name=end sync=false max-buffers=1 enable-last-sample=false";
}

using Element = std::shared_ptr<GstElement>;

// A pipeline, stopped when it is released: that removes the shared memory's file.
Element parsePipeline(const std::string& description)
{
    gst_init(nullptr, nullptr);
    GError* error = nullptr;
    GstElement* const pipeline = gst_parse_launch(description.c_str(), &error);
    require(error == nullptr, "gst_parse_launch", error ? error->message : "");
    return Element(
        pipeline,
        [](GstElement* ended)
        {
            gst_element_set_state(ended, GST_STATE_NULL);
            gst_object_unref(ended);
        });
}

// The element towards this program; lives as long as its pipeline.
GstElement* getEnd(const Element& pipeline)
{
    GstElement* const end = gst_bin_get_by_name(GST_BIN(pipeline.get()), "end");
    gst_object_unref(end);
    return end;
}

// @return null for the default allocator
std::shared_ptr<GstAllocator> askForAllocator(const Element& pipeline)
{
    const std::shared_ptr<GstPad> pad(
        gst_element_get_static_pad(getEnd(pipeline), "src"), gst_object_unref);
    const std::shared_ptr<GstQuery> query(
        gst_query_new_allocation(nullptr, FALSE), gst_query_unref);
    GstAllocator* allocator = nullptr;
    if (gst_pad_peer_query(pad.get(), query.get()) != FALSE &&
        gst_query_get_n_allocation_params(query.get()) > 0)
        gst_query_parse_nth_allocation_param(query.get(), 0, &allocator, nullptr);
    return {allocator, [](gpointer offered) { g_clear_object(&offered); }};
}

void play(const Element& pipeline)
{
    const auto change = gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    require(change != GST_STATE_CHANGE_FAILURE, "gst_element_set_state", "failed");
}

GstFlowReturn onSample(GstAppSink* sink, gpointer handler)
{
    GstSample* const sample = gst_app_sink_pull_sample(sink);
    if (!sample)
        return GST_FLOW_EOS;
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    GstMapInfo map;
    if (gst_buffer_map(buffer, &map, GST_MAP_READ))
    {
        deliverPacket(*static_cast<FrameHandler*>(handler), map.data, map.size);
        gst_buffer_unmap(buffer, &map);
    }
    gst_sample_unref(sample);
    return GST_FLOW_OK;
}

} // namespace

SendFrame openStream(const Plan& plan)
{
    const Element pipeline = parsePipeline(describeSender(plan));
    play(pipeline);
    const GstClockTime durationNs = NsPerSecond / plan.rate;
    return [pipeline, durationNs, allocator = askForAllocator(pipeline),
            input = GST_APP_SRC(getEnd(pipeline))](std::uint64_t, Bytes packet)
    {
        GstBuffer* const buffer = gst_buffer_new_allocate(
            allocator.get(), countSamples(packet.size()) * BytesPerSample, nullptr);
        gst_buffer_fill(buffer, 0, packet.data(), packet.size());
        GST_BUFFER_DURATION(buffer) = durationNs;
        gst_app_src_push_buffer(input, buffer);
    };
}

void startReceiving(const Plan& plan, FrameHandler handler)
{
    // Both last as long as the process.
    static std::deque<Element> pipelines;
    const Element& pipeline = pipelines.emplace_back(parsePipeline(describeReceiver(plan)));
    auto* const lastingHandler = new FrameHandler(std::move(handler));
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = onSample;
    gst_app_sink_set_callbacks(GST_APP_SINK(getEnd(pipeline)), &callbacks, lastingHandler, nullptr);
    play(pipeline);
}

} // namespace vlx::bench
