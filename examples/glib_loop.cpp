// A consumer in a GLib main loop: everything runs on the loop's thread. Ends with the stream.
//
//   glib_loop NAME

#include <iostream>

#include <glib-unix.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>

namespace
{

struct Program
{
    vlx::kit::Consumer consumer;
    GMainLoop* loop;
    int frames = 0;
};

// Reads what there is: the descriptor stays readable as long as something waits.
gboolean onReadable(gint, GIOCondition, gpointer data)
{
    Program& program = *static_cast<Program*>(data);
    while (const auto item = program.consumer.read(std::chrono::nanoseconds(0)))
    {
        if (const auto* const format = std::get_if<vlx::kit::StreamFormat>(&*item))
            std::cout << toText(*format) << std::endl;
        else if (std::holds_alternative<vlx::kit::ReceivedFrame>(*item))
            ++program.frames;
        else if (const auto* const event = std::get_if<vlx::kit::ConsumerEvent>(&*item))
        {
            std::cout << event->text << std::endl;
            if (event->kind == vlx::kit::ConsumerEvent::Kind::Lost)
                g_main_loop_quit(program.loop);
        }
    }
    return G_SOURCE_CONTINUE;
}

} // namespace

int main(int, char** argv)
{
    const vlx::kit::Logging logging;
    Program program{
        vlx::kit::Consumer(vlx::kit::ConsumerOptions{.name = argv[1]}),
        g_main_loop_new(nullptr, FALSE)};
    if (!program.consumer.start())
        return 1;
    g_unix_fd_add(program.consumer.getDescriptor(), G_IO_IN, onReadable, &program);
    g_main_loop_run(program.loop);
    g_main_loop_unref(program.loop);
    std::cout << program.frames << " frames" << std::endl;
}
