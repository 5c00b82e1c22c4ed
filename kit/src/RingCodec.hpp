#pragma once

#include <functional>
#include <memory>
#include <utility>

#include <vlx/VlxPayload.hpp>

#include "CodecRelay.hpp"
#include "FrameRing.hpp"

namespace vlx::kit
{

/// Wraps each frame with another payloader exactly once, before the packet is made: its size is
/// known only then.
class WrappedPayloader : public Payloader
{
public:
    /// @param codec  must outlive its use
    explicit WrappedPayloader(Payloader& codec) : Payloader(codec.getFourcc()), m_codec(codec)
    {
        m_codecHeader = codec.getCodecHeader();
    }

    /// @return the wrapped frame, which packets carry until the next call
    ByteView wrap(const ByteView& mediaData)
    {
        m_frame.assign(m_codec.getSizeForWrappedFrame(mediaData), 0); // as in a packet
        m_codec.wrapFrame(m_frame, 0, mediaData);
        return m_frame;
    }

    std::size_t getSizeForWrappedFrame(const ByteView& /*mediaData*/) const override
    {
        return m_frame.size();
    }

    void wrapFrame(Buffer& packet, std::size_t packetOffset, const ByteView& /*mediaData*/) override
    {
        Payloader::wrapFrame(packet, packetOffset, m_frame);
    }

private:
    Payloader& m_codec;
    Buffer m_frame;
};

/// Puts the frames of another codec into a ring. A packet contains only a frame's place.
class RingPayloader : public Payloader
{
public:
    RingPayloader() : Payloader(RingFourcc) {}

    /// @param payloader  of the codec
    void use(const Payloader& payloader, std::shared_ptr<FrameRing> ring)
    {
        m_codecHeader = produceRingHeader(
            {ring->getLayout(), payloader.getFourcc(), payloader.getCodecHeader()});
        m_ring = std::move(ring);
    }

    void forget()
    {
        m_ring.reset();
    }

    /// @param frame  the next one, wrapped by its codec; must outlive its packet
    void setFrame(const ByteView& frame)
    {
        m_frame = frame;
    }

    std::size_t getSizeForWrappedFrame(const ByteView& /*mediaData*/) const override
    {
        return RingPlaceBytes;
    }

    void wrapFrame(Buffer& packet, std::size_t packetOffset, const ByteView& /*mediaData*/) override
    {
        writeRingPlace(m_ring->publish(m_frame), packet, packetOffset);
    }

private:
    ByteView m_frame;
    std::shared_ptr<FrameRing> m_ring;
};

/// Reads frames from a ring for the codec that they belong to.
///
/// @thread as a depayloader
class RingDepayloader : public Depayloader
{
public:
    using FindCodec = std::function<CodecRelay*(std::uint32_t fourcc)>;

    /// @param findCodec  returns null for a codec that cannot be played
    explicit RingDepayloader(FindCodec findCodec)
        : Depayloader(RingFourcc), m_findCodec(std::move(findCodec))
    {
    }

    /// @param user  of the sending process, as reported by the kernel
    void setSender(uid_t user)
    {
        m_sender = user;
    }

    bool processCodecHeader(const ByteView& codecHeader) override
    {
        const auto header = parseRingHeader(codecHeader);
        CodecRelay* const codec = header ? m_findCodec(header->fourcc) : nullptr;
        const bool isAccepted = codec != nullptr &&
                                m_reader.open(header->layout, m_sender).empty() &&
                                codec->processCodecHeader(header->codecHeader);
        m_codec = isAccepted ? codec : nullptr;
        return isAccepted;
    }

    Buffer unwrapFrame(const ByteView& payload) override
    {
        const bool isPayload = m_codec != nullptr && m_codec->reusesMemory();
        const auto place = parseRingPlace(payload);
        m_isLost = m_codec == nullptr || !place ||
                   !m_reader.read(*place, isPayload ? m_codec->getFrame() : m_bytes);
        if (!m_isLost && !isPayload)
            m_codec->unwrapFrame(m_bytes);
        return {};
    }

    void reset() override
    {
        m_reader.close();
        m_codec = nullptr;
        m_isLost = false;
    }

    /// @return codec of the frames, after a header that was accepted
    CodecRelay* getCodec() const
    {
        return m_codec;
    }

    /// @return whether the last frame is lost; false when asked again
    bool takeLoss()
    {
        return std::exchange(m_isLost, false);
    }

private:
    const FindCodec m_findCodec;
    uid_t m_sender = 0;
    RingReader m_reader;
    CodecRelay* m_codec = nullptr;
    Buffer m_bytes;
    bool m_isLost = false;
};

} // namespace vlx::kit
