#pragma once

#include <functional>
#include <memory>
#include <typeinfo>
#include <utility>

#include <vlx/VlxPayload.hpp>
#include <vlxkit/Producer.hpp>

#include "CodecRelay.hpp"
#include "FrameRing.hpp"

namespace vlx::kit
{

/// Puts the frames of another payloader into a ring. A packet says only where a frame lies.
class RingPayloader : public Payloader
{
public:
    RingPayloader() : Payloader(RingFourcc) {}

    /// @param payloader  must outlive its use
    void use(Payloader& payloader, std::shared_ptr<FrameRing> ring)
    {
        m_codecHeader = produceRingHeader(
            {ring->getLayout(), payloader.getFourcc(), payloader.getCodecHeader()});
        m_payloader = &payloader;
        m_copiesOnly = typeid(payloader) == typeid(PcmPayloader) ||
                       typeid(payloader) == typeid(Payloader) ||
                       dynamic_cast<const PlainPayloader*>(&payloader) != nullptr;
        m_ring = std::move(ring);
    }

    void forget()
    {
        m_payloader = nullptr;
        m_ring.reset();
    }

    std::size_t getSizeForWrappedFrame(const ByteView& /*mediaData*/) const override
    {
        return RingPlaceBytes;
    }

    void wrapFrame(Buffer& packet, std::size_t packetOffset, const ByteView& mediaData) override
    {
        writeRingPlace(
            m_ring->publish(m_copiesOnly ? mediaData : wrap(mediaData)), packet, packetOffset);
    }

private:
    ByteView wrap(const ByteView& mediaData)
    {
        m_wrapped.resize(m_payloader->getSizeForWrappedFrame(mediaData));
        m_payloader->wrapFrame(m_wrapped, 0, mediaData);
        return m_wrapped;
    }

    Payloader* m_payloader = nullptr;
    bool m_copiesOnly = false; // the payloader does not change the bytes
    Buffer m_wrapped;
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
