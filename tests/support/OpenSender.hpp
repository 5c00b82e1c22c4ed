#pragma once

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxSender.hpp>

#include "support/RawSender.hpp"

namespace vlx::testing
{

/// A payloader of PCM whose format is set.
class FormattedPayloader : public PcmPayloader
{
public:
    FormattedPayloader(
        std::uint32_t rate,
        std::uint32_t channels,
        audioUtils::PcmFormat format = audioUtils::PcmFormat::S16LE)
    {
        setNewFormat(rate, channels, format);
    }
};

/// A sender that is open, with its first sequence announced.
class OpenSender : public Sender
{
public:
    /// @param payloader  must outlive the sender
    OpenSender(
        const std::string& name,
        Payloader& payloader,
        NanomsgProtocol protocol = NanomsgProtocol::PubSub,
        const RawClockInfo& clock = {})
    {
        EXPECT_TRUE(
            initializeSender(name, {}, clock.address, clock.port, clock.protocol, protocol));
        setCurrentPayloader(payloader);
        startNewSequence();
    }
};

} // namespace vlx::testing
