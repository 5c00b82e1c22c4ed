#pragma once

#include <algorithm>
#include <optional>

#include <vlx/VlxPayload.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::kit
{

/// Stands between a receiver and the user of a codec's frames: keeps each frame, so that it need
/// not be copied from the receiver, and withholds a header that only repeats the one before, so
/// that a decoder in step is not disturbed. By itself it accepts every header, and a frame is its
/// payload.
///
/// @thread as a depayloader
class CodecRelay : public Depayloader
{
public:
    using Depayloader::Depayloader;

    bool processCodecHeader(const ByteView& codecHeader) final
    {
        m_hasChanged =
            !m_header ||
            !std::equal(m_header->begin(), m_header->end(), codecHeader.begin(), codecHeader.end());
        if (!m_hasChanged)
            return true;
        m_header.reset();
        if (!accept(codecHeader))
            return false;
        m_header.emplace(codecHeader.begin(), codecHeader.end());
        return true;
    }

    Buffer unwrapFrame(const ByteView& payload) final
    {
        unwrap(payload);
        return {};
    }

    void reset() override
    {
        forgetHeader();
    }

    /// Treats the next header as a new one, whatever it is.
    void forgetHeader()
    {
        m_header.reset();
    }

    /// @return whether the last header was a new one; the first of a connection always is
    bool hasChanged() const
    {
        return m_hasChanged;
    }

    /// @return format of the frames that follow the last header
    virtual FrameFormat getFormat() const
    {
        return CodecFormat{getFourcc(), m_header.value_or(Buffer())};
    }

    /// @return the last frame's media data, to be read or taken
    Buffer& getFrame()
    {
        return m_frame;
    }

    /// @return whether a frame is written into the memory that getFrame() still has, which should
    ///         then be replaced when it is taken
    virtual bool reusesMemory() const
    {
        return true;
    }

protected:
    /// @return whether frames can be read with this header, which is a new one
    virtual bool accept(const ByteView& /*codecHeader*/)
    {
        return true;
    }

    /// Turns a payload into m_frame.
    virtual void unwrap(const ByteView& payload)
    {
        m_frame.assign(payload.begin(), payload.end());
    }

    Buffer m_frame;

private:
    std::optional<Buffer> m_header; // that was accepted last
    bool m_hasChanged = false;
};

/// Relays to a depayloader of the application.
class DepayloaderRelay : public CodecRelay
{
public:
    /// @param target  must outlive the relay
    explicit DepayloaderRelay(Depayloader& target)
        : CodecRelay(target.getFourcc()),
          m_target(target),
          m_isPlain(dynamic_cast<PlainDepayloader*>(&target) != nullptr)
    {
    }

    void reset() override
    {
        CodecRelay::reset();
        m_target.reset();
    }

    bool reusesMemory() const override
    {
        return m_isPlain;
    }

private:
    bool accept(const ByteView& codecHeader) override
    {
        return m_target.processCodecHeader(codecHeader);
    }

    void unwrap(const ByteView& payload) override
    {
        if (m_isPlain)
            CodecRelay::unwrap(payload);
        else
            m_frame = m_target.unwrapFrame(payload);
    }

    Depayloader& m_target;
    const bool m_isPlain; // the frame is the payload
};

/// PCM within the limits of StreamFormat.
class PcmRelay : public CodecRelay
{
public:
    PcmRelay() : CodecRelay(PcmFourcc) {}

    FrameFormat getFormat() const override
    {
        return getStreamFormat();
    }

private:
    bool accept(const ByteView& codecHeader) override
    {
        return m_parser.processCodecHeader(codecHeader) && getStreamFormat().isSupported();
    }

    StreamFormat getStreamFormat() const
    {
        return {m_parser.getSampleFormat(), m_parser.getSampleRate(), m_parser.getNumChannels()};
    }

    PcmDepayloader m_parser;
};

} // namespace vlx::kit
