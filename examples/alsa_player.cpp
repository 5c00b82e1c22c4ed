// Plays a stream of S16LE on an ALSA device, as it comes; the device's clock is left alone.
//
//   alsa_player NAME DEVICE [FRAMES]

#include <iostream>
#include <string>

#include <alsa/asoundlib.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>

int main(int argc, char** argv)
{
    const vlx::kit::Logging logging;
    snd_pcm_t* device = nullptr;
    if (::snd_pcm_open(&device, argv[2], SND_PCM_STREAM_PLAYBACK, 0) < 0)
        return 1;
    // A device that stands still costs the oldest frames of this consumer, and no other.
    vlx::kit::Consumer consumer(vlx::kit::ConsumerOptions{.name = argv[1]});
    if (!consumer.start())
        return 1;
    vlx::kit::StreamFormat format;
    for (long left = argc > 3 ? std::stol(argv[3]) : -1; left != 0;)
    {
        const auto item = consumer.read(); // waits
        if (const auto* const event = std::get_if<vlx::kit::ConsumerEvent>(&item.value()))
            std::cout << event->text << std::endl;
        if (const auto* const next = std::get_if<vlx::kit::StreamFormat>(&*item))
        {
            format = *next;
            constexpr unsigned LatencyUs = 100'000;
            if (::snd_pcm_set_params(
                    device, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED, format.channels,
                    format.rate, 1, LatencyUs) < 0)
                return 1;
        }
        const auto* const frame = std::get_if<vlx::kit::ReceivedFrame>(&*item);
        if (frame == nullptr)
            continue;
        --left;
        if (frame->numDropped > 0)
            std::cout << frame->numDropped << " frames lost: the device is too slow" << std::endl;
        const std::size_t samples = frame->data.size() / format.getBytesPerSample();
        const auto result = ::snd_pcm_writei(device, frame->data.data(), samples);
        if (result < 0 && ::snd_pcm_recover(device, static_cast<int>(result), 1) < 0)
            return 1;
    }
    ::snd_pcm_close(device);
}
