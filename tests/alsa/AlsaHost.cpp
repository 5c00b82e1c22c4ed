// A program that knows only ALSA: it lists the devices, or plays to those that it is given and
// closes the first. Then it forks a child that ends by exit().

#include <array>
#include <cstdio>
#include <cstdlib>
#include <vector>

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
    std::vector<snd_pcm_t*> pcms;
    for (int i = 1; i < argc; ++i)
    {
        constexpr std::array<short, 4800> Samples{};
        snd_pcm_t* pcm = nullptr;
        if (::snd_pcm_open(&pcm, argv[i], SND_PCM_STREAM_PLAYBACK, 0) < 0 ||
            ::snd_pcm_set_params(
                pcm, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, 1, 48000, 0, 500'000) < 0)
            return 1;
        ::snd_pcm_writei(pcm, Samples.data(), Samples.size());
        pcms.push_back(pcm);
    }
    if (!pcms.empty())
        ::snd_pcm_close(pcms[0]);

    const pid_t child = ::fork();
    if (child == 0)
    {
        ::alarm(30); // ends it if it hangs
        std::exit(3);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    std::printf("child: %d\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    for (std::size_t i = 1; i < pcms.size(); ++i)
        ::snd_pcm_close(pcms[i]);
}
