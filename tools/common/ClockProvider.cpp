#include "ClockProvider.hpp"

#include <gst/gst.h>
#include <gst/net/gstnet.h>

#include "ExitCodes.hpp"

namespace vlx::tool
{

ClockProvider::ClockProvider(const std::string& address, std::uint16_t port) : m_port(port)
{
    // GLib would read past the end of an address that is no UTF-8.
    if (g_utf8_validate(address.c_str(), -1, nullptr) == FALSE)
        throw CommandFailure(ExitCode::Failed, "the clock's address is no UTF-8");
    ::gst_init(nullptr, nullptr);
    // One of its own: the process's shared clock could have been changed by others.
    auto* const clock = static_cast<GstClock*>(
        ::gst_object_ref_sink(::g_object_new(GST_TYPE_SYSTEM_CLOCK, nullptr)));
    auto* const provider = ::gst_net_time_provider_new(clock, address.c_str(), port);
    ::gst_object_unref(clock);
    if (provider == nullptr)
        throw CommandFailure(
            ExitCode::Failed, "cannot serve a clock at " + address + " port " +
                                  std::to_string(port) +
                                  ": it needs a numeric address of this machine, and a free port");
    m_provider.reset(provider, ::gst_object_unref);
    gint boundPort = 0;
    ::g_object_get(provider, "port", &boundPort, nullptr);
    m_port = static_cast<std::uint16_t>(boundPort);
}

} // namespace vlx::tool
