#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gio/gio.h>
#include <gst/gst.h>
#include <gst/net/gstnet.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <pthread.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <miscUtils/SyncedNetClock.hpp>

#include "Assertions.hpp"

// How a provider is followed
//
// GStreamer polls the provider, computes a regression over the answers and posts a message for each
// accepted answer: the observation, and the resulting calibration (a straight line from local to
// provider time). A session's thread pops these messages, checks each observation, and adopts the
// calibration only while the observations are consistent. Nothing else of GStreamer's clock is
// used: its time is clamped to be monotonic, its flag stays "synced" when the provider is gone, and
// its calibration is wrong for seconds after the provider's clock has jumped.
//
// Its "synced" signal is not used. Each message is posted after the flag has changed; the signal
// comes from GStreamer's thread, does not come at all if a recently used address is used again, and
// flaps with every answer of a provider that has been set back.

namespace miscUtils
{

namespace
{

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));

// Accepted answers come every 50 to 100 ms. GStreamer rejects those with a round trip well above
// the average and polls again after 250 ms. If round trips suddenly grow many times longer, it can
// take a second more than this limit to adapt, and the clock counts as lost meanwhile.
constexpr guint64 SilenceLimitNs = 3'000'000'000;

// Polling interval while the provider is silent. GStreamer's default of 1 s would find it late.
constexpr guint64 RequestIntervalNs = 100'000'000;

constexpr guint64 ResolveIntervalNs = 1'000'000'000;

// The range that GStreamer accepts.
constexpr unsigned int SmallestWindow = 2;
constexpr unsigned int LargestWindow = 1024;

// Deviations up to this limit are left to the regression.
constexpr guint64 StepSlackNs = 10'000'000;

// Linux slews a clock by at most 10 %.
constexpr guint64 SlewDivisor = 10;

// Answers are closer together than this unless the provider was silent. Over a longer time a
// deviation does not count as slewing: even if it was, the estimate is no longer valid.
constexpr guint64 LongestSlewNs = 500'000'000;

struct GObjectDeleter
{
    void operator()(gpointer object) const
    {
        g_object_unref(object);
    }
};

struct MessageDeleter
{
    void operator()(GstMessage* message) const
    {
        gst_message_unref(message);
    }
};

template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectDeleter>;
using MessagePtr = std::unique_ptr<GstMessage, MessageDeleter>;

// A straight line from local to provider time, both in nanoseconds.
struct Calibration
{
    guint64 internal = 0;
    guint64 external = 0;
    guint64 rateNum = 1;
    guint64 rateDen = 1;

    guint64 toProviderTime(guint64 local) const
    {
        return gst_clock_adjust_with_calibration(
            nullptr, local, internal, external, rateNum, rateDen);
    }
};

// One answer of the provider. All in nanoseconds; `local` and `received` on the local clock.
struct Observation
{
    guint64 local = 0; // middle of the round trip
    guint64 remote = 0;
    guint64 received = 0;
    guint64 roundTrip = 0;
    guint64 averageRoundTrip = 0;
    Calibration calibration; // after this observation
};

std::optional<Observation> parseObservation(GstMessage* message)
{
    const GstStructure* const fields = gst_message_get_structure(message);
    if (fields == nullptr || !gst_structure_has_name(fields, "gst-netclock-statistics"))
        return std::nullopt;

    const std::pair<const char*, guint64 Observation::*> times[] = {
        {"local", &Observation::local},
        {"remote", &Observation::remote},
        {"request-receive", &Observation::received},
        {"rtt", &Observation::roundTrip},
        {"rtt-average", &Observation::averageRoundTrip}};
    const std::pair<const char*, guint64 Calibration::*> line[] = {
        {"internal-time", &Calibration::internal},
        {"external-time", &Calibration::external},
        {"rate-num", &Calibration::rateNum},
        {"rate-den", &Calibration::rateDen}};

    Observation result;
    bool isComplete = true;
    for (const auto& [name, field] : times)
        isComplete &= gst_structure_get_uint64(fields, name, &(result.*field)) != FALSE;
    for (const auto& [name, field] : line)
        isComplete &= gst_structure_get_uint64(fields, name, &(result.calibration.*field)) != FALSE;
    return isComplete ? std::optional(result) : std::nullopt;
}

// Whether the provider's clock has jumped, either way, between two observations.
//
// An observation measures the offset between the clocks to within half its round trip. So two of
// them differ by at most the sum of the halves and of the slewing in between. This is true for any
// network and estimate, and also after the provider, or this process, was stopped and continued:
// late answers have long round trips.
bool hasJumped(const Observation& before, const Observation& now)
{
    // Modulo 2^64: the provider's clock may be behind ours.
    const guint64 shift = (now.remote - now.local) - (before.remote - before.local);
    const guint64 magnitude = std::min(shift, guint64{0} - shift);

    const guint64 elapsed = now.local > before.local ? now.local - before.local : 0;
    const guint64 slew = std::min(elapsed, LongestSlewNs) / SlewDivisor;
    return magnitude > (before.roundTrip + now.roundTrip) / 2 + slew + StepSlackNs;
}

// Whether the line agrees with the observation. The average allows for the uncertainty of the line.
bool isNear(const Calibration& line, const Observation& seen)
{
    const guint64 estimate = line.toProviderTime(seen.local);
    const guint64 deviation = std::max(estimate, seen.remote) - std::min(estimate, seen.remote);
    return deviation <= seen.roundTrip / 2 + seen.averageRoundTrip + StepSlackNs;
}

struct Target
{
    std::string address;
    unsigned int port;
    unsigned int windowSize;
    unsigned long roundTripLimitNs;
};

// Lifetime of one synchronisation: starts with startSynchronization(), ends with a stop or the next
// start. Owned by shared pointers, so that a reader may keep it a little longer; joined before the
// owner releases it.
class Session
{
public:
    Session(Target target, std::function<void()> onStateChange);

    // Starts the thread, unless a stop was requested before. If no thread can be started, the
    // session never synchronises.
    void launch();

    // Requests the end of the thread. Any thread; does not wait.
    void requestStop();

    // Waits for the thread. Call it after requestStop(), from one thread only, never the session's
    // own.
    void join();

    // Whether the calling thread is the thread of a session, of any clock.
    static bool isThreadOfAny();

    bool isOwnThread() const;

    bool isSynchronized() const;
    TimeValue getSynchronizedTime() const;

private:
    enum class Phase
    {
        Learning,  // no valid estimate: at the beginning and after a jump
        Following, // the estimate is valid
        Silent     // the estimate was valid until the provider fell silent
    };

    void run();
    bool openBus();
    std::string awaitNumericAddress();
    std::string resolveAddress() const;
    bool openClock(const std::string& numericAddress);
    void closeClock();
    void follow();
    MessagePtr awaitMessage();
    void observe(const Observation& now);
    void restartRegression();
    void setPhase(Phase phase);

    // Constant after construction.
    const Target m_target;
    const std::function<void()> m_onStateChange;
    const GObjectPtr<GCancellable> m_cancellable; // ends a name's resolution

    // Own thread only.
    GObjectPtr<GstClock> m_clock;
    std::optional<Observation> m_lastObservation;

    std::atomic<bool> m_isStopping = false;

    // Leaf lock: held for a few instructions, never during a wait or a callback.
    mutable std::mutex m_mutex;

    // Guarded by m_mutex. Only the session's thread writes them, so it reads them without the lock.
    GObjectPtr<GstBus> m_bus; // set once, after GStreamer's initialisation
    GObjectPtr<GstClock> m_internalClock;
    Phase m_phase = Phase::Learning;
    Calibration m_estimate;

    // Guarded by m_mutex until a stop is requested; then owned by the joining thread.
    std::thread m_thread;
};

thread_local const Session* t_ownSession = nullptr;

Session::Session(Target target, std::function<void()> onStateChange)
    : m_target(std::move(target)),
      m_onStateChange(std::move(onStateChange)),
      m_cancellable(g_cancellable_new())
{
}

void Session::launch()
{
    try
    {
        const std::lock_guard lock(m_mutex);
        if (!m_isStopping)
            m_thread = std::thread(&Session::run, this);
    }
    catch (const std::system_error& error)
    {
        LOG4CPLUS_ERROR(
            logger,
            "Could not start the network clock's thread: " << strerror_r_safe(error.code().value())
                                                           << " (" << error.code().value() << ")");
    }
}

void Session::requestStop()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isStopping = true;
        // Any message wakes the thread.
        if (m_bus)
            gst_bus_post(
                m_bus.get(),
                gst_message_new_application(nullptr, gst_structure_new_empty("stop-request")));
    }
    g_cancellable_cancel(m_cancellable.get());
}

void Session::join()
{
    if (m_thread.joinable())
        m_thread.join();
}

bool Session::isOwnThread() const
{
    return t_ownSession == this;
}

bool Session::isThreadOfAny()
{
    return t_ownSession != nullptr;
}

bool Session::isSynchronized() const
{
    const std::lock_guard lock(m_mutex);
    return m_phase == Phase::Following;
}

TimeValue Session::getSynchronizedTime() const
{
    const std::lock_guard lock(m_mutex);
    if (m_phase == Phase::Learning || !m_internalClock)
        return 0;
    // The internal clock's internal time is the plain local clock: no lock, no clamp.
    return m_estimate.toProviderTime(gst_clock_get_internal_time(m_internalClock.get()));
}

void Session::run()
{
    t_ownSession = this;
    ::pthread_setname_np(::pthread_self(), "vlx-clock");

    if (!openBus())
        return;
    const std::string numericAddress = awaitNumericAddress();
    if (m_isStopping || !openClock(numericAddress))
        return;
    follow();
    closeClock();
}

bool Session::openBus()
{
    if (!gst_init_check(nullptr, nullptr, nullptr))
        return false;

    GObjectPtr<GstBus> bus(gst_bus_new());
    const std::lock_guard lock(m_mutex);
    m_bus = std::move(bus);
    return true;
}

// Returns an empty address if a stop was requested meanwhile. GStreamer must not get a host name:
// it would resolve it in a call that cannot be cancelled, and keep a dead clock for it after a
// failure.
std::string Session::awaitNumericAddress()
{
    const GObjectPtr<GInetAddress> numeric(
        g_inet_address_new_from_string(m_target.address.c_str()));
    if (numeric)
        return m_target.address;

    std::string resolved;
    while (!m_isStopping && (resolved = resolveAddress()).empty())
        MessagePtr(gst_bus_timed_pop(m_bus.get(), ResolveIntervalNs));
    return resolved;
}

// Prefers IPv4, where providers listen by default. Empty on failure.
std::string Session::resolveAddress() const
{
    // GLib assumes valid UTF-8 and would read past the end of an invalid name.
    if (!g_utf8_validate(
            m_target.address.data(), static_cast<gssize>(m_target.address.size()), nullptr))
        return {};

    const GObjectPtr<GResolver> resolver(g_resolver_get_default());
    const std::unique_ptr<GList, decltype(&g_resolver_free_addresses)> addresses(
        g_resolver_lookup_by_name(
            resolver.get(), m_target.address.c_str(), m_cancellable.get(), nullptr),
        &g_resolver_free_addresses);

    GInetAddress* chosen = nullptr;
    for (GList* entry = addresses.get(); entry != nullptr; entry = entry->next)
    {
        auto* const candidate = static_cast<GInetAddress*>(entry->data);
        const bool isIPv4 = g_inet_address_get_family(candidate) == G_SOCKET_FAMILY_IPV4;
        if (chosen == nullptr || isIPv4)
            chosen = candidate;
        if (isIPv4)
            break;
    }
    if (chosen == nullptr)
        return {};

    const std::unique_ptr<char, decltype(&g_free)> text(g_inet_address_to_string(chosen), &g_free);
    return text.get();
}

bool Session::openClock(const std::string& numericAddress)
{
    if (m_target.port == 0 || m_target.port > G_MAXUINT16)
        return false;

    m_clock.reset(gst_net_client_clock_new(
        nullptr, numericAddress.c_str(), static_cast<gint>(m_target.port), 0));
    if (!m_clock)
        return false;

    // Sets the bus before the regression is restarted, so that every observation is seen: the
    // internal clock may have been running since an earlier use of the address.
    const guint64 roundTripLimit = m_target.roundTripLimitNs;
    g_object_set(m_clock.get(), "bus", m_bus.get(), "round-trip-limit", roundTripLimit, nullptr);

    GstClock* internalClock = nullptr;
    g_object_get(m_clock.get(), "internal-clock", &internalClock, nullptr);
    g_object_set(internalClock, "timeout", RequestIntervalNs, nullptr);
    {
        const std::lock_guard lock(m_mutex);
        m_internalClock.reset(internalClock);
    }
    restartRegression();
    return true;
}

void Session::closeClock()
{
    g_object_set(m_clock.get(), "bus", nullptr, nullptr);

    GObjectPtr<GstClock> internalClock;
    {
        const std::lock_guard lock(m_mutex);
        m_phase = Phase::Learning;
        internalClock = std::move(m_internalClock);
    }
    m_clock.reset();
}

void Session::follow()
{
    bool wasSynchronized = false;
    while (!m_isStopping)
    {
        // One message at a time: the callback sees every change, even if this thread runs late.
        const MessagePtr message = awaitMessage();
        if (!message)
            setPhase(Phase::Silent);
        else if (const std::optional<Observation> observation = parseObservation(message.get()))
            observe(*observation);

        const bool isSynchronizedNow = m_phase == Phase::Following;
        if (isSynchronizedNow == wasSynchronized || m_isStopping)
            continue;
        wasSynchronized = isSynchronizedNow;
        if (m_onStateChange)
            m_onStateChange();
    }
}

// Returns null if the provider has fallen silent. A waiting message is always delivered, so that a
// long callback does not count as silence.
MessagePtr Session::awaitMessage()
{
    guint64 timeout = GST_CLOCK_TIME_NONE;
    if (m_phase == Phase::Following)
    {
        const guint64 deadline = m_lastObservation->received + SilenceLimitNs;
        const guint64 now = gst_clock_get_internal_time(m_internalClock.get());
        timeout = deadline > now ? deadline - now : 0;
    }
    return MessagePtr(gst_bus_timed_pop(m_bus.get(), timeout));
}

void Session::observe(const Observation& now)
{
    const bool jumped = m_lastObservation && hasJumped(*m_lastObservation, now);
    const bool wentAstray = m_phase == Phase::Silent && !isNear(m_estimate, now);
    m_lastObservation = now;

    if (jumped || wentAstray)
    {
        setPhase(Phase::Learning);
        restartRegression();
        return;
    }

    // A clock without its first calibration could agree by chance, if the provider's clock equals
    // ours. One that was used before, or restarted, keeps its calibration for a while.
    const bool isLearned =
        gst_clock_is_synced(m_internalClock.get()) && isNear(now.calibration, now);
    if (m_phase == Phase::Learning && !isLearned)
        return;

    const std::lock_guard lock(m_mutex);
    m_estimate = now.calibration;
    m_phase = Phase::Following;
}

// Setting the window size makes GStreamer discard its observations; it keeps the calibration until
// there are four new ones. This must be done on the internal clock; on the outer one it has no
// effect. Sessions with the same provider restart each other's regression: after a jump all of them
// do so, each shortly after the same message, and each recovers when the calibration agrees.
void Session::restartRegression()
{
    const auto window =
        static_cast<gint>(std::clamp(m_target.windowSize, SmallestWindow, LargestWindow));
    g_object_set(m_internalClock.get(), "window-size", window, nullptr);
}

void Session::setPhase(Phase phase)
{
    const std::lock_guard lock(m_mutex);
    m_phase = phase;
}

} // namespace

class SyncedNetClock::Impl
{
public:
    ~Impl()
    {
        stop();
        if (!wasStarted())
            return;
        joinEnding();
        assert(m_ending.empty() && "a clock must not be destroyed from inside its own callback");
    }

    bool wasStarted() const
    {
        return m_process != 0;
    }

    // In a forked child the sessions exist without their threads.
    bool isForkedCopy() const
    {
        return wasStarted() && m_process != ::getpid();
    }

    void start(const std::shared_ptr<Session>& session)
    {
        m_process = ::getpid();
        setAside(exchangeSession(session));
        // Two starts inside the callbacks of two sessions would wait for each other.
        if (!Session::isThreadOfAny())
            joinEnding();
        session->launch();
    }

    void stop()
    {
        // Without the lock: in a forked copy it may be held by a thread that does not exist.
        if (!wasStarted())
            return;
        const std::shared_ptr<Session> session = exchangeSession(nullptr);
        const bool isOfOther = session && !session->isOwnThread();
        if (!Session::isThreadOfAny())
        {
            setAside(session);
            joinEnding();
        }
        else if (isOfOther)
        {
            session->requestStop();
            session->join();
        }
        else
            setAside(session);
    }

    std::shared_ptr<Session> getSession() const
    {
        const std::lock_guard lock(m_mutex);
        return m_session;
    }

private:
    std::shared_ptr<Session> exchangeSession(std::shared_ptr<Session> next)
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_session, std::move(next));
    }

    // Ends a session and keeps it for a later join. Null: does nothing.
    void setAside(const std::shared_ptr<Session>& session)
    {
        if (!session)
            return;
        session->requestStop();
        const std::lock_guard lock(m_mutex);
        m_ending.push_back(session);
    }

    // Joins the sessions that were kept, except the one whose callback makes this call.
    void joinEnding()
    {
        std::vector<std::shared_ptr<Session>> ended;
        {
            const std::lock_guard lock(m_mutex);
            const auto others = std::partition(
                m_ending.begin(), m_ending.end(),
                [](const auto& session) { return session->isOwnThread(); });
            ended.assign(std::move_iterator(others), std::move_iterator(m_ending.end()));
            m_ending.erase(others, m_ending.end());
        }
        for (const auto& session : ended)
            session->join();
    }

    std::atomic<pid_t> m_process = 0; // process that last started the clock; 0: not started

    // Never held during a wait.
    mutable std::mutex m_mutex;

    // Guarded by m_mutex.
    std::shared_ptr<Session> m_session;
    std::vector<std::shared_ptr<Session>> m_ending;
};

SyncedNetClock::SyncedNetClock() : m_impl(std::make_unique<Impl>()) {}

SyncedNetClock::~SyncedNetClock()
{
    // Stopping would affect the original, or wait for a thread that does not exist here.
    if (m_impl->isForkedCopy())
        static_cast<void>(m_impl.release());
}

void SyncedNetClock::startSynchronization(
    std::string address,
    unsigned int port,
    unsigned int windowSize,
    unsigned long roundTripLimit,
    std::function<void()> onStateChange)
{
    if (m_impl->isForkedCopy())
    {
        auto own = std::make_unique<Impl>();
        static_cast<void>(m_impl.release()); // as at the end
        m_impl = std::move(own);
    }
    m_impl->start(std::make_shared<Session>(
        Target{std::move(address), port, windowSize, roundTripLimit}, std::move(onStateChange)));
}

void SyncedNetClock::stopSynchronization()
{
    if (!m_impl->isForkedCopy())
        m_impl->stop();
}

bool SyncedNetClock::isSynchronized() const
{
    const std::shared_ptr<Session> session = m_impl->getSession();
    return session && session->isSynchronized();
}

TimeValue SyncedNetClock::getSynchronizedTime() const
{
    const std::shared_ptr<Session> session = m_impl->getSession();
    return session ? session->getSynchronizedTime() : 0;
}

} // namespace miscUtils
