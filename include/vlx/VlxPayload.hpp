#pragma once

/// The packets of a stream, and the classes that turn media frames into packets and back.
///
/// None of these classes locks: one thread at a time per object. Payloaders and depayloaders belong
/// to the application; senders, receivers and lists only keep references to them.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include <audioUtils/PcmFormat.hpp>
#include <vlx/VlxTypes.hpp>

namespace vlx
{

/// First byte of every packet on the main channel.
enum class PacketType : std::int32_t
{
    Unknown = 0,
    /// Opens a sequence: a stretch of the stream with one codec configuration.
    SequenceInfo = 1,
    /// Carries one media frame.
    Frame = 2,
    /// End marker, never on the wire and never printed.
    NumPacketTypes = 3,
};

/// @return "unknown", "sequenceInfo" or "frame"; "<dummy>" for a value that is no enumerator
/// @pre type is not PacketType::NumPacketTypes; otherwise the assertion "false" stops the process
VLX_API std::string toString(PacketType type);

/// Reads a packet's type. Types that this version does not know are reported as Unknown, so that
/// receivers can skip what a newer sender might add.
///
/// @pre packetData.size() >= 1; checked by assertion
VLX_API PacketType parsePacketType(const ByteView& packetData);

/// Reads a packet's sequence number, whatever its type.
///
/// @pre packetData.size() >= 4; checked by assertion
VLX_API std::uint16_t parsePacketSequenceNr(const ByteView& packetData);

/// Builds a SequenceInfo packet.
///
/// @param packet       its content is replaced; its capacity stays for reuse
/// @param fourcc       code of the codec, four characters, lowest byte first
/// @param codecHeader  the codec's header, appended unchanged; may be empty; not in `packet`
/// @param sequenceNr   number of the sequence that the packet opens
VLX_API void produceSequenceInfoPacket(
    Buffer& packet,
    std::uint32_t fourcc,
    const ByteView& codecHeader,
    std::uint16_t sequenceNr);

/// Base of all payloaders: knows its codec's FourCC and header, and wraps media frames into
/// packets. A codec derives from it and fills `m_codecHeader`. One that changes the bytes of a
/// frame overrides both virtual operations, consistently.
///
/// A sender calls both with its own lock held: never call the sender from here, and take no lock
/// that another caller of the sender holds.
class VLX_API Payloader
{
public:
    /// Sets the codec for good.
    /// @param fourcc  code of the codec, four characters, lowest byte first
    explicit Payloader(std::uint32_t fourcc);
    virtual ~Payloader();

    Payloader(const Payloader&) = delete;
    Payloader& operator=(const Payloader&) = delete;

    /// Tells the size of a frame's payload. Called exactly once for each frame, directly before
    /// wrapFrame() with the same data: an encoder whose size is known only afterwards encodes here,
    /// into a `mutable` buffer, and wrapFrame() copies from it.
    ///
    /// @return number of bytes that wrapFrame() will write for this frame; here: the frame's size
    virtual std::size_t getSizeForWrappedFrame(const ByteView& mediaData) const;

    /// Writes a frame's payload into a packet; here: the media bytes, unchanged.
    ///
    /// It may throw: the frame is then not sent, and the exception leaves the sender's
    /// sendMediaData(), which works again at the next call. The same holds for
    /// getSizeForWrappedFrame().
    ///
    /// @param packet        already large enough; its size is not changed
    /// @param packetOffset  where the payload begins, in bytes
    /// @param mediaData     the frame; valid only during the call
    /// @pre (packetOffset + mediaData.size()) <= packet.size(); checked by assertion
    virtual void wrapFrame(Buffer& packet, std::size_t packetOffset, const ByteView& mediaData);

    /// @return the FourCC given at construction
    std::uint32_t getFourcc() const;

    /// @return the codec header; valid until the format changes or the payloader is destroyed
    const Buffer& getCodecHeader() const;

    /// Builds a Frame packet around one media frame.
    ///
    /// @param packet      its content is replaced; its capacity stays for reuse
    /// @param sequenceNr  number of the sequence that the frame belongs to
    /// @param timestamp   carried as given
    /// @param duration    carried as given
    /// @param mediaData   the frame; may be empty; not in `packet`; copied once
    void produceFramePacket(
        Buffer& packet,
        std::uint16_t sequenceNr,
        TimeValue timestamp,
        TimeValue duration,
        const ByteView& mediaData);

protected:
    /// The FourCC given at construction.
    const std::uint32_t m_fourcc;
    /// What every announcement of a sequence carries. Replace it while no sender uses it, then
    /// start a new sequence.
    Buffer m_codecHeader;
};

/// Base of all depayloaders: takes a codec's header and turns payloads back into media data.
class VLX_API Depayloader
{
public:
    /// Sets the codec for good.
    /// @param fourcc  code of the codec, four characters, lowest byte first
    explicit Depayloader(std::uint32_t fourcc);
    virtual ~Depayloader();

    Depayloader(const Depayloader&) = delete;
    Depayloader& operator=(const Depayloader&) = delete;

    /// Takes the codec header of a SequenceInfo packet and updates the format.
    ///
    /// @param codecHeader  valid only during the call; may be empty
    /// @return whether the header is acceptable; false makes a receiver drop its connection
    /// @thread a receiver's worker thread, or the one that uses a list
    virtual bool processCodecHeader(const ByteView& codecHeader) = 0;

    /// Turns a Frame packet's payload into media data; here: a copy.
    ///
    /// It must not throw: in a receiver that ends the process. It has no way to refuse a payload
    /// and sees neither timestamps nor losses: what cannot be decoded becomes an empty buffer, or
    /// what the codec plays instead, and the media-data callback, which sees a gap in the
    /// timestamps, decides what to do about it.
    ///
    /// @param payload  valid only during the call; may be empty
    /// @return the media data
    /// @thread a receiver's worker thread
    virtual Buffer unwrapFrame(const ByteView& payload);

    /// Forgets what belongs to one stream; here: nothing.
    ///
    /// A receiver calls it, for every depayloader that it has, after each connection and when it
    /// stops, not before the first connection: begin in the state that reset() leaves. It does so
    /// with its own lock held: never call a receiver from here.
    /// @thread a receiver's worker thread, or the one that resets a list
    virtual void reset();

    /// @return the FourCC given at construction
    std::uint32_t getFourcc() const;

protected:
    /// The FourCC given at construction.
    const std::uint32_t m_fourcc;
};

/// Depayloaders by FourCC, the one that the current sequence selected, and the last frame.
///
/// One thread at a time, except getCurrentDepayloader(), which any thread may call.
class DepayloaderList
{
public:
    /// Result of consumePacket().
    enum class ConsumePacketRetcode : std::int32_t
    {
        /// Consumed, or ignored because the packet's type is unknown: getCurrentPacketType() tells.
        Ok = 0,
        /// Too short for its fields, or the depayloader rejected the codec header. Logged as ERROR.
        Error = 1,
        /// A SequenceInfo whose FourCC nobody registered. Nothing is selected any more.
        NoMatchingDepayloader = 2,
        /// A Frame while no depayloader is selected.
        NoCurrentDepayloader = 3,
    };

    /// An empty list. Depayloaders that are added later are not reset by that.
    VLX_API DepayloaderList();

    /// Registers a depayloader under its FourCC. One that was registered under the same FourCC
    /// before is replaced, silently.
    ///
    /// @param depayloader  not owned; must outlive the list
    VLX_API void addDepayloader(Depayloader& depayloader);

    /// Selects a depayloader without a SequenceInfo packet, for streams whose codec header arrives
    /// by other means.
    ///
    /// @return what processCodecHeader() of the selected depayloader says; false, with nothing
    ///         selected, if the FourCC is not registered
    VLX_API bool setOutOfBandInfo(std::uint32_t fourcc, const ByteView& codecHeader);

    /// Forgets the current frame and selection, then resets every depayloader in ascending order of
    /// FourCC.
    VLX_API void reset();

    /// Takes one packet. A SequenceInfo selects a depayloader and gives it the codec header; a
    /// Frame is unwrapped by the selected one. What the getters return is updated field by field:
    /// after an error, fields that could be read are new and the media data is that of the previous
    /// frame.
    ///
    /// @param packetData  one complete packet; valid only during the call
    /// @pre packetData.size() > 4; checked by assertion
    VLX_API ConsumePacketRetcode consumePacket(const ByteView& packetData);

    /// @return media data of the last unwrapped frame; valid until the next packet or reset
    VLX_API const Buffer& getCurrentFrameMediaData() const;

    /// @return the same, moved out; the list's own copy is empty afterwards
    VLX_API Buffer stealCurrentFrameMediaData();

    /// @return timestamp of the last Frame packet, as sent
    VLX_API TimeValue getCurrentFrameTimestamp() const;

    /// @return duration of the last Frame packet, as sent
    VLX_API TimeValue getCurrentFrameDuration() const;

    /// @return sequence number of the last packet of any type
    VLX_API std::uint16_t getCurrentSequenceNr() const;

    /// @return type of the last packet; Unknown for a type that this version does not know
    VLX_API PacketType getCurrentPacketType() const;

    /// @return the selected depayloader, or null
    /// @thread any
    VLX_API Depayloader* getCurrentDepayloader() const;

private:
    Depayloader* findDepayloader(std::uint32_t fourcc) const;

    std::map<std::uint32_t, Depayloader*> m_depayloaders; // borrowed, never null
    Buffer m_currentFrameMediaData;
    TimeValue m_currentFrameTimestamp = 0;
    TimeValue m_currentFrameDuration = 0;
    std::uint16_t m_currentSequenceNr = 0;
    PacketType m_currentPacketType = PacketType::Unknown;
    // Atomic because a receiver's clock thread looks at it while the worker replaces it.
    std::atomic<Depayloader*> m_currentDepayloader = nullptr;
};

/// FourCC of uncompressed PCM audio: "PCMA" in the order of the wire.
extern VLX_API const std::uint32_t PcmFourcc;

/// Sends uncompressed, interleaved PCM audio. Frames travel unchanged.
class VLX_API PcmPayloader : public Payloader
{
public:
    /// The codec header is empty until setNewFormat() is called.
    PcmPayloader();
    ~PcmPayloader() override;

    /// Replaces the codec header. Nothing is validated, and nothing is announced: call the sender's
    /// startNewSequence() afterwards.
    ///
    /// @param sampleRate    samples per second and channel
    /// @param numChannels   interleaved channels; only the low byte is sent
    /// @param sampleFormat  format of each sample; only the low byte is sent
    /// @thread not while a sender that uses this payloader is in a call
    void setNewFormat(
        std::uint32_t sampleRate,
        std::uint32_t numChannels,
        audioUtils::PcmFormat sampleFormat);
};

/// Receives uncompressed, interleaved PCM audio. Frames travel unchanged.
///
/// Take the format in the receiver's new-sequence callback. The getters may be called from any
/// thread, but only there do the three values belong together, and only there are they known to
/// have been accepted.
class VLX_API PcmDepayloader : public Depayloader
{
public:
    /// Without a format until the first header.
    PcmDepayloader();
    ~PcmDepayloader() override;

    /// Takes a codec header field by field; a rejected header still leaves its fields behind.
    ///
    /// @param codecHeader  six bytes; more are ignored
    /// @return false if the header is too short, the rate or the channel count is 0, or the format
    ///         is not a PcmFormat
    bool processCodecHeader(const ByteView& codecHeader) override;

    /// @return samples per second and channel; 0 before the first header
    std::uint32_t getSampleRate() const;

    /// @return interleaved channels; 0 before the first header
    std::uint32_t getNumChannels() const;

    /// @return format of each sample; as sent, so after a rejected header possibly no enumerator
    audioUtils::PcmFormat getSampleFormat() const;

private:
    // Atomic because an application may look from a callback on the clock's thread.
    std::atomic<std::uint32_t> m_sampleRate = 0;
    std::atomic<std::uint32_t> m_numChannels = 0;
    std::atomic<audioUtils::PcmFormat> m_sampleFormat = audioUtils::PcmFormat{};
};

} // namespace vlx
