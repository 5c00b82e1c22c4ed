#pragma once

#include <algorithm>
#include <optional>
#include <utility>

#include <vlx/VlxPayload.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::kit
{

/// Keeps what a depayloader unwraps, so that it need not be copied from the receiver.
class KeptFrame
{
public:
    /// @return the last frame's media data, to be read or taken
    Buffer& getFrame()
    {
        return m_frame;
    }

protected:
    ~KeptFrame() = default;

    Buffer m_frame;
};

/// Stands between a receiver and a depayloader of the application: withholds a header that only
/// repeats the one before, so that a decoder in step is not disturbed.
///
/// @thread as a depayloader
class CodecRelay : public Depayloader, public KeptFrame
{
public:
    /// @param target  must outlive the relay
    explicit CodecRelay(Depayloader& target) : Depayloader(target.getFourcc()), m_target(target) {}

    bool processCodecHeader(const ByteView& codecHeader) override
    {
        m_hasChanged =
            !m_header ||
            !std::equal(m_header->begin(), m_header->end(), codecHeader.begin(), codecHeader.end());
        if (!m_hasChanged)
            return true;
        m_header.reset();
        if (!m_target.processCodecHeader(codecHeader))
            return false;
        m_header.emplace(codecHeader.begin(), codecHeader.end());
        return true;
    }

    Buffer unwrapFrame(const ByteView& payload) override
    {
        m_frame = m_target.unwrapFrame(payload);
        return {};
    }

    void reset() override
    {
        forgetHeader();
        m_target.reset();
    }

    /// Passes the next header on, whatever it is.
    void forgetHeader()
    {
        m_header.reset();
    }

    /// @return whether the last header was passed on
    bool hasChanged() const
    {
        return m_hasChanged;
    }

    Depayloader& getTarget() const
    {
        return m_target;
    }

    /// @return what frames are to be read with
    CodecFormat getFormat() const
    {
        return {getFourcc(), m_header.value_or(Buffer())};
    }

private:
    Depayloader& m_target;
    std::optional<Buffer> m_header; // that the target has accepted last
    bool m_hasChanged = false;
};

/// PCM within the limits of StreamFormat.
class BoundedPcmDepayloader : public PcmDepayloader, public KeptFrame
{
public:
    Buffer unwrapFrame(const ByteView& payload) override
    {
        m_frame.assign(payload.begin(), payload.end());
        return {};
    }

    bool processCodecHeader(const ByteView& codecHeader) override
    {
        return PcmDepayloader::processCodecHeader(codecHeader) && getFormat().isSupported();
    }

    StreamFormat getFormat() const
    {
        return {getSampleFormat(), getSampleRate(), getNumChannels()};
    }
};

} // namespace vlx::kit
