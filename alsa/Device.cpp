#include "Device.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <new>
#include <utility>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace vlx::alsa
{

namespace
{

constexpr unsigned int MinRate = 8'000;
constexpr unsigned int MaxRate = 384'000;
constexpr unsigned int MinPeriodBytes = 64;
constexpr unsigned int MaxBufferBytes = 1 << 20; // given to programs that request the largest
constexpr unsigned int MaxPeriods = 1024;

bool isRealTime(int policy)
{
    return policy == SCHED_FIFO || policy == SCHED_RR;
}

/// The program's buffer as one area for each channel.
std::array<snd_pcm_channel_area_t, MaxChannels>
makeAreas(std::uint8_t* buffer, unsigned int numChannels, unsigned int bits)
{
    std::array<snd_pcm_channel_area_t, MaxChannels> areas{};
    for (unsigned int channel = 0; channel < numChannels; ++channel)
        areas.at(channel) = {buffer, channel * bits, numChannels * bits};
    return areas;
}

} // namespace

TimeValue getNow()
{
    return static_cast<TimeValue>(
        std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count());
}

std::chrono::steady_clock::time_point toDeadline(TimeValue time)
{
    return std::chrono::steady_clock::time_point(
        std::chrono::nanoseconds(static_cast<std::int64_t>(time)));
}

Device::OpenersScheduling::OpenersScheduling(const Device& device)
{
    if (!isRealTime(device.m_openersPolicy))
        return;
    ::pthread_getschedparam(::pthread_self(), &m_formerPolicy, &m_former);
    m_changed = !isRealTime(m_formerPolicy) &&
                ::pthread_setschedparam(
                    ::pthread_self(), device.m_openersPolicy, &device.m_openersParameters) == 0;
}

Device::OpenersScheduling::~OpenersScheduling()
{
    if (m_changed)
        ::pthread_setschedparam(::pthread_self(), m_formerPolicy, &m_former);
}

Device::Device(Settings settings, snd_pcm_stream_t stream)
    : m_settings(std::move(settings)), m_stream(stream), m_process(::getpid())
{
    ::pthread_getschedparam(::pthread_self(), &m_openersPolicy, &m_openersParameters);
    m_io.poll_fd = -1;
}

Device::~Device()
{
    if (m_io.poll_fd >= 0)
        ::close(m_io.poll_fd);
}

/// Calls a function of the device, and keeps exceptions away from ALSA. In a forked child, where
/// the thread does not exist, the PCM can only be closed.
template <auto Member, typename Result, typename... Arguments>
Result Device::call(snd_pcm_ioplug_t* io, Arguments... arguments)
{
    auto& device = *static_cast<Device*>(io->private_data);
    if (::getpid() != device.m_process)
        return -EBADFD;
    try
    {
        return (device.*Member)(arguments...);
    }
    catch (const std::bad_alloc&)
    {
        return -ENOMEM;
    }
    catch (const std::exception& exception)
    {
        SNDERR("vlx: %s", exception.what());
        return -EIO;
    }
}

int Device::close(snd_pcm_ioplug_t* io)
{
    auto* const device = static_cast<Device*>(io->private_data);
    if (::getpid() != device->m_process)
    {
        device->abandon(); // and leaves the rest: another thread may have held the lock
        ::close(io->poll_fd);
        return 0;
    }
    device->shutDown();
    delete device;
    return 0;
}

const snd_pcm_ioplug_callback_t& Device::getCallbacks()
{
    static const snd_pcm_ioplug_callback_t table = []
    {
        snd_pcm_ioplug_callback_t callbacks{};
        callbacks.start = call<&Device::start>;
        callbacks.stop = call<&Device::stop>;
        callbacks.pointer = call<&Device::getPointer>;
        callbacks.transfer = call<&Device::transfer>;
        callbacks.close = close;
        callbacks.hw_params = call<&Device::setHardware>;
        callbacks.sw_params = call<&Device::setSoftware>;
        callbacks.prepare = call<&Device::prepare>;
        callbacks.pause = call<&Device::pause>;
        callbacks.poll_revents = call<&Device::getEvents>;
        callbacks.delay = call<&Device::reportDelay>;
        callbacks.drain = call<&Device::drain>;
        return callbacks;
    }();
    return table;
}

int Device::open(
    std::unique_ptr<Device> device,
    snd_pcm_t** pcm,
    const char* name,
    int mode,
    const std::optional<kit::StreamFormat>& format)
{
    snd_pcm_ioplug_t& io = device->m_io;
    io.version = SND_PCM_IOPLUG_VERSION;
    io.name = "Vellox stream";
    io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    io.poll_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    io.poll_events = POLLIN;
    io.nonblock = (mode & SND_PCM_NONBLOCK) != 0 ? 1 : 0;
    io.callback = &getCallbacks();
    io.private_data = device.get();
    if (io.poll_fd < 0)
        return -errno;
    int error = ::snd_pcm_ioplug_create(&io, name, device->m_stream, mode);
    if (error < 0)
        return error;
    error = device.release()->limitFormats(format); // ALSA destroys the device
    if (error < 0)
        ::snd_pcm_ioplug_delete(&io);
    else
        *pcm = io.pcm;
    return error;
}

int Device::limitFormats(const std::optional<kit::StreamFormat>& format)
{
    constexpr std::array<unsigned int, 4> Accesses = {
        SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_ACCESS_RW_NONINTERLEAVED,
        SND_PCM_ACCESS_MMAP_INTERLEAVED, SND_PCM_ACCESS_MMAP_NONINTERLEAVED};
    std::array<unsigned int, audioUtils::NumPcmFormats> formats{};
    unsigned int numFormats = 0;
    for (std::size_t i = 0; i < formats.size(); ++i)
    {
        const auto sampleFormat = static_cast<audioUtils::PcmFormat>(i);
        if (!format || format->sampleFormat == sampleFormat)
            formats.at(numFormats++) = static_cast<unsigned int>(toAlsaFormat(sampleFormat));
    }
    struct Range
    {
        int type;
        unsigned int minimum;
        unsigned int maximum;
    };
    const std::array<Range, 5> ranges = {{
        {SND_PCM_IOPLUG_HW_CHANNELS, format ? format->channels : 1,
         format ? format->channels : MaxChannels},
        {SND_PCM_IOPLUG_HW_RATE, format ? format->rate : MinRate, format ? format->rate : MaxRate},
        {SND_PCM_IOPLUG_HW_PERIOD_BYTES, MinPeriodBytes, MaxBufferBytes / 2},
        {SND_PCM_IOPLUG_HW_BUFFER_BYTES, 2 * MinPeriodBytes, MaxBufferBytes},
        {SND_PCM_IOPLUG_HW_PERIODS, 2, MaxPeriods},
    }};
    int error = ::snd_pcm_ioplug_set_param_list(
        &m_io, SND_PCM_IOPLUG_HW_ACCESS, Accesses.size(), Accesses.data());
    if (error == 0)
        error = ::snd_pcm_ioplug_set_param_list(
            &m_io, SND_PCM_IOPLUG_HW_FORMAT, numFormats, formats.data());
    for (const Range& range : ranges)
    {
        if (error == 0)
            error =
                ::snd_pcm_ioplug_set_param_minmax(&m_io, range.type, range.minimum, range.maximum);
    }
    return error;
}

int Device::setHardware(snd_pcm_hw_params_t* /*parameters*/)
{
    const auto sampleFormat = toPcmFormat(m_io.format);
    if (!sampleFormat)
        return -EINVAL;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_format = {*sampleFormat, m_io.rate, m_io.channels};
    m_bufferSize = m_io.buffer_size;
    m_buffer.assign(m_bufferSize * m_format.getBytesPerSample(), 0);
    m_availableMinimum = m_io.period_size;
    m_stopThreshold = m_bufferSize;
    return 0;
}

int Device::setSoftware(snd_pcm_sw_params_t* parameters)
{
    snd_pcm_uframes_t availableMinimum = 0;
    snd_pcm_uframes_t stopThreshold = 0;
    ::snd_pcm_sw_params_get_avail_min(parameters, &availableMinimum);
    ::snd_pcm_sw_params_get_stop_threshold(parameters, &stopThreshold);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_availableMinimum = std::max<std::uint64_t>(availableMinimum, 1);
    m_stopThreshold = stopThreshold;
    updateDescriptor();
    return 0;
}

int Device::prepare()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isRunning = false;
        if (m_hasThreadFailed)
            return -EIO;
    }
    if (const int error = onPrepare(); error < 0)
        return error;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_hasThreadFailed) // since the call began
        return -EIO;
    m_position = 0;
    m_error = 0;
    m_isXrun = m_isPaused = m_isDraining = false;
    updateDescriptor();
    return 0;
}

int Device::start()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (const int error = onStart(); error < 0)
        return error;
    m_isRunning = true;
    m_changed.notify_all();
    return 0;
}

int Device::stop()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isRunning = false;
    m_changed.notify_all();
    updateDescriptor();
    return 0;
}

int Device::pause(int enable)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isPaused = enable != 0;
    m_changed.notify_all();
    return m_isPaused ? 0 : onStart();
}

/// With an error to report it promises a sample, so that ALSA calls transfer(), which reports it.
snd_pcm_sframes_t Device::getPointer()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_isXrun)
        return -EPIPE;
    return static_cast<snd_pcm_sframes_t>(m_position) + (m_error != 0 ? 1 : 0);
}

/// Copies between areas and the buffer. The areas are the program's own; with mapped access they
/// are ALSA's copy of the buffer.
snd_pcm_sframes_t Device::transfer(
    const snd_pcm_channel_area_t* areas,
    snd_pcm_uframes_t offset,
    snd_pcm_uframes_t size)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_error != 0)
        return m_error;
    const bool isMapped = m_io.access != SND_PCM_ACCESS_RW_INTERLEAVED &&
                          m_io.access != SND_PCM_ACCESS_RW_NONINTERLEAVED;
    const auto own = makeAreas(
        m_buffer.data(), m_io.channels,
        static_cast<unsigned int>(::snd_pcm_format_physical_width(m_io.format)));
    std::uint64_t place = m_io.appl_ptr % m_bufferSize;
    for (std::uint64_t left = size; left > 0;)
    {
        const std::uint64_t count = std::min(left, m_bufferSize - place);
        if (isPlayback())
            ::snd_pcm_areas_copy(
                own.data(), place, areas, offset, m_io.channels, count, m_io.format);
        else
            ::snd_pcm_areas_copy(
                areas, offset, own.data(), place, m_io.channels, count, m_io.format);
        place = 0;
        offset += count;
        left -= count;
    }
    m_changed.notify_all();
    // ALSA moves the program's position after this, except where it only fills its copy.
    updateDescriptor(isMapped && !isPlayback() ? 0 : size);
    return static_cast<snd_pcm_sframes_t>(size);
}

std::uint64_t Device::getAvailable() const
{
    const std::uint64_t program = getProgramPosition();
    if (isPlayback())
        return m_bufferSize + m_position - std::min(program, m_bufferSize + m_position);
    return m_position - std::min(program, m_position);
}

/// While draining, and before a capture has started, there is nothing to write or read.
bool Device::isReady(std::uint64_t numTransferred) const
{
    if (m_error != 0 || m_isXrun)
        return true;
    if (m_isDraining)
        return !m_isRunning;
    return getAvailable() >= m_availableMinimum + numTransferred;
}

int Device::getEvents(pollfd* /*descriptors*/, unsigned int /*count*/, unsigned short* result)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    updateDescriptor();
    unsigned int events = 0;
    if (isReady())
        events = isPlayback() ? POLLOUT : POLLIN;
    if (m_error != 0 || m_isXrun)
        events |= POLLERR;
    *result = static_cast<unsigned short>(events);
    // ALSA's own waits take the reason from the state.
    if (m_isXrun)
        ::snd_pcm_ioplug_set_state(&m_io, SND_PCM_STATE_XRUN);
    else if (m_error == -ENODEV)
        ::snd_pcm_ioplug_set_state(&m_io, SND_PCM_STATE_DISCONNECTED);
    return 0;
}

int Device::reportDelay(snd_pcm_sframes_t* delay)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    *delay = getDelay();
    return m_isXrun ? -EPIPE : 0;
}

void Device::updateDescriptor(std::uint64_t numTransferred)
{
    const bool isWanted = isReady(numTransferred);
    if (isWanted == m_isSignalled)
        return;
    m_isSignalled = isWanted;
    eventfd_t value = 1;
    if (isWanted)
        ::eventfd_write(m_io.poll_fd, value);
    else
        ::eventfd_read(m_io.poll_fd, &value);
}

void Device::fail(std::unique_lock<std::mutex>& lock, int errorNumber, const std::string& reason)
{
    m_error = errorNumber;
    m_isRunning = false;
    m_changed.notify_all();
    updateDescriptor();
    lock.unlock(); // the program's error handler may wait for a thread that needs it
    SNDERR("vlx: %s", reason.c_str());
    lock.lock();
}

void Device::reportXrun()
{
    m_isXrun = true;
    m_isRunning = false;
    updateDescriptor();
}

void Device::startThread()
{
    m_thread = std::thread(
        [this]
        {
            ::pthread_setname_np(::pthread_self(), isPlayback() ? "vlx-playback" : "vlx-capture");
            try
            {
                run();
            }
            catch (const std::exception& exception)
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_hasThreadFailed = true;
                fail(lock, -EIO, exception.what());
            }
        });
}

void Device::joinThread()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_quits = true;
        m_changed.notify_all();
    }
    if (m_thread.joinable())
        m_thread.join();
}

} // namespace vlx::alsa
