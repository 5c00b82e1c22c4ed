// Runs the pipeline of its argument until its end, as gst-launch-1.0 does: exit 0 at EOS, 1 after
// an error. With a second argument, only makes the pipeline: exit 0 if a forked child can exit.

#include <gst/gst.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr unsigned ExitDeadlineSeconds = 30;

int exitInForkedChild()
{
    const pid_t child = ::fork();
    if (child == 0)
    {
        ::alarm(ExitDeadlineSeconds);
        return 0;
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && status == 0 ? 0 : 1;
}

} // unnamed namespace

int main(int argc, char** argv)
{
    gst_init(&argc, &argv);
    if (argc < 2)
        return 2;
    GError* error = nullptr;
    GstElement* const pipeline = gst_parse_launch(argv[1], &error);
    if (error != nullptr)
        g_printerr("%s\n", error->message);
    if (pipeline == nullptr)
        return 1;
    if (argc > 2)
        return exitInForkedChild();
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* const bus = gst_element_get_bus(pipeline);
    GstMessage* const message = gst_bus_timed_pop_filtered(
        bus, GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    const bool ended = GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    gst_message_unref(message);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    return ended ? 0 : 1;
}
