// A program that uses only ALSA. Without arguments it lists the devices; with two, it opens them.
// At the end of its input it closes the first device, and forks a child that closes the second one
// and ends by exit(). It plays to the second device before and after the fork.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <numeric>

#include <alsa/asoundlib.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    ::dup2(STDOUT_FILENO, STDERR_FILENO);
    std::atexit([] { std::puts("at exit"); });
    void** hints = nullptr;
    if (argc == 1 && ::snd_device_name_hint(-1, "pcm", &hints) == 0)
        ::snd_device_name_free_hint(hints);
    std::array<snd_pcm_t*, 2> pcms{};
    std::array<short, 480> samples{};
    std::iota(samples.begin(), samples.end(), short(1));
    for (int i = 1; i < argc; ++i)
    {
        snd_pcm_t*& pcm = pcms.at(static_cast<std::size_t>(i - 1));
        if (::snd_pcm_open(&pcm, argv[i], SND_PCM_STREAM_PLAYBACK, 0) < 0 ||
            ::snd_pcm_set_params(
                pcm, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, 1, 48000, 0, 500'000) < 0)
            return 1;
    }
    snd_pcm_t* const pcm = pcms[1];
    std::getchar();
    if (pcm != nullptr)
    {
        ::snd_pcm_close(pcms[0]);
        ::snd_pcm_writei(pcm, samples.data(), samples.size());
    }
    const pid_t child = ::fork();
    if (child == 0)
    {
        ::alarm(30); // ends it if it hangs
        const bool isClosed = pcm == nullptr || (::snd_pcm_writei(pcm, samples.data(), 1) < 0 &&
                                                 ::snd_pcm_close(pcm) == 0);
        std::exit(isClosed ? 3 : 4);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    std::printf("child: %d\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    if (pcm != nullptr)
    {
        ::snd_pcm_writei(pcm, samples.data(), samples.size());
        ::snd_pcm_drain(pcm);
        ::snd_pcm_close(pcm);
    }
}
