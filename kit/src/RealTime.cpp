#include <cerrno>

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/RealTime.hpp>

namespace vlx::kit
{

namespace
{

std::string describeRefusal(int priority, int error)
{
    const std::string text = "no real-time scheduling: ";
    if (error != EPERM)
        return text + miscUtils::strerror_r_safe(error);

    rlimit limit{};
    ::getrlimit(RLIMIT_RTPRIO, &limit);
    return text + "priority " + std::to_string(priority) + " is not permitted (RLIMIT_RTPRIO is " +
           std::to_string(limit.rlim_cur) +
           "); raise \"rtprio\" in /etc/security/limits.conf, or LimitRTPRIO= of the service";
}

} // unnamed namespace

RealTimeScope::RealTimeScope(const RealTime& wanted)
{
    if (wanted.use == RealTimeUse::Off)
        return;
    if (wanted.priority < ::sched_get_priority_min(SCHED_RR) ||
        wanted.priority > ::sched_get_priority_max(SCHED_RR))
    {
        m_status = {
            ErrorCode::InvalidArgument, "no real-time scheduling: priority " +
                                            std::to_string(wanted.priority) + " is not in 1 to 99"};
        return;
    }

    sched_param former{};
    int error = ::pthread_getschedparam(::pthread_self(), &m_formerPolicy, &former);
    m_formerPriority = former.sched_priority;
    if (error == 0)
    {
        const sched_param parameters{wanted.priority};
        error = ::pthread_setschedparam(::pthread_self(), SCHED_RR, &parameters);
    }
    m_changed = error == 0;
    if (!m_changed)
        m_status = {ErrorCode::NotPermitted, describeRefusal(wanted.priority, error)};
}

RealTimeScope::~RealTimeScope()
{
    if (!m_changed)
        return;
    const sched_param former{m_formerPriority};
    ::pthread_setschedparam(::pthread_self(), m_formerPolicy, &former);
}

} // namespace vlx::kit
