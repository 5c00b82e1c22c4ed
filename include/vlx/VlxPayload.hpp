#pragma once

/// The packets of a stream, and the classes that convert media frames to packets and back.
///
/// These classes have no locks: use each object from one thread at a time. Payloaders and
/// depayloaders belong to the application; senders, receivers and lists only reference them.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include <audioUtils/PcmFormat.hpp>
#include <vlx/VlxTypes.hpp>

namespace vlx
{

/// Type of a packet on the main channel, its first byte.
enum class PacketType : std::int32_t
{
    Unknown = 0,
    /// Opens a sequence, a part of the stream with one codec configuration.
    SequenceInfo = 1,
    /// Carries one media frame.
    Frame = 2,
    /// End marker, never on the wire and never printed.
    NumPacketTypes = 3,
};

/// @return "unknown", "sequenceInfo" or "frame"; "<dummy>" for any other value
/// @pre type is not PacketType::NumPacketTypes; otherwise the assertion "false" stops the process
VLX_API std::string toString(PacketType type);

/// Reads a packet's type. A type that this version does not know is reported as Unknown, so that
/// receivers skip packets that a newer sender may add.
///
/// @pre packetData.size() >= 1; checked by assertion
VLX_API PacketType parsePacketType(const ByteView& packetData);

/// Reads a packet's sequence number. Every type of packet has one.
///
/// @pre packetData.size() >= 4; checked by assertion
VLX_API std::uint16_t parsePacketSequenceNr(const ByteView& packetData);

/// Builds a SequenceInfo packet.
///
/// @param packet       its content is replaced; its capacity stays for reuse
/// @param fourcc       code of the codec, four characters, lowest byte first
/// @param codecHeader  the codec's header, appended unchanged; may be empty; not part of `packet`
/// @param sequenceNr   number of the sequence that the packet opens
VLX_API void produceSequenceInfoPacket(
    Buffer& packet,
    std::uint32_t fourcc,
    const ByteView& codecHeader,
    std::uint16_t sequenceNr);

/// Base of all payloaders: holds a codec's FourCC and header, and wraps media frames into packets.
/// A codec derives from it and fills `m_codecHeader`. A codec that changes the bytes of a frame
/// overrides both virtual operations, consistently.
///
/// A sender calls both with its own lock held: do not call the sender from them, and take no lock
/// that another caller of the sender holds.
class VLX_API Payloader
{
public:
    /// Creates a payloader of one codec.
    /// @param fourcc  code of the codec, four characters, lowest byte first
    explicit Payloader(std::uint32_t fourcc);
    virtual ~Payloader();

    Payloader(const Payloader&) = delete;
    Payloader& operator=(const Payloader&) = delete;

    /// Returns the size of a frame's payload. Called exactly once for each frame, directly before
    /// wrapFrame() with the same data. An encoder that knows the size only after encoding encodes
    /// here, into a `mutable` buffer, and wrapFrame() copies from it.
    ///
    /// @return number of bytes that wrapFrame() will write for this frame; by default its size
    virtual std::size_t getSizeForWrappedFrame(const ByteView& mediaData) const;

    /// Writes a frame's payload into a packet; by default the media bytes, unchanged.
    ///
    /// It may throw, and so may getSizeForWrappedFrame(): the frame is then not sent,
    /// sendMediaData() passes the exception on, and the next call works again.
    ///
    /// @param packet        already large enough; do not change its size
    /// @param packetOffset  start of the payload, in bytes
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
    /// @param mediaData   the frame; may be empty; not part of `packet`; copied once
    void produceFramePacket(
        Buffer& packet,
        std::uint16_t sequenceNr,
        TimeValue timestamp,
        TimeValue duration,
        const ByteView& mediaData);

protected:
    /// The FourCC given at construction.
    const std::uint32_t m_fourcc;
    /// Codec header, part of every announcement of a sequence. Replace it only while no call of the
    /// sender is running, then start a new sequence.
    Buffer m_codecHeader;
};

/// Base of all depayloaders: takes a codec's header and converts payloads back to media data.
class VLX_API Depayloader
{
public:
    /// Creates a depayloader of one codec.
    /// @param fourcc  code of the codec, four characters, lowest byte first
    explicit Depayloader(std::uint32_t fourcc);
    virtual ~Depayloader();

    Depayloader(const Depayloader&) = delete;
    Depayloader& operator=(const Depayloader&) = delete;

    /// Parses the codec header of a SequenceInfo packet and updates the format.
    ///
    /// @param codecHeader  valid only during the call; may be empty
    /// @return true if the header is accepted; false makes a receiver drop its connection
    /// @thread a receiver's worker thread, or the thread that uses a DepayloaderList
    virtual bool processCodecHeader(const ByteView& codecHeader) = 0;

    /// Converts a Frame packet's payload to media data; by default a copy.
    ///
    /// It must not throw: in a receiver that ends the process. It cannot refuse a payload. For one
    /// that cannot be decoded it returns an empty buffer, or the codec's concealment. It sees no
    /// timestamps and so no lost frames: the media-data callback handles those.
    ///
    /// @param payload  valid only during the call; may be empty
    /// @return the media data
    /// @thread a receiver's worker thread
    virtual Buffer unwrapFrame(const ByteView& payload);

    /// Resets all state of the current stream; by default does nothing.
    ///
    /// A receiver calls it for each of its depayloaders after each connection and when it stops,
    /// but not before the first connection: construct the object in the state that reset() leaves.
    /// The receiver's lock is held: do not call a receiver from here.
    /// @thread a receiver's worker thread, or the thread that resets a DepayloaderList
    virtual void reset();

    /// @return the FourCC given at construction
    std::uint32_t getFourcc() const;

protected:
    /// The FourCC given at construction.
    const std::uint32_t m_fourcc;
};

/// Parses packets: holds depayloaders by FourCC, the one selected by the current sequence, and the
/// last frame.
///
/// @thread one at a time; getCurrentDepayloader() from any
class DepayloaderList
{
public:
    /// Result of consumePacket().
    enum class ConsumePacketRetcode : std::int32_t
    {
        /// Consumed, or ignored because its type is unknown; see getCurrentPacketType().
        Ok = 0,
        /// Too short for its fields, or the depayloader rejected the codec header. Logged as ERROR.
        Error = 1,
        /// A SequenceInfo whose FourCC is not registered. No depayloader is selected any more.
        NoMatchingDepayloader = 2,
        /// A Frame while no depayloader is selected.
        NoCurrentDepayloader = 3,
    };

    /// Creates an empty list.
    VLX_API DepayloaderList();

    /// Registers a depayloader under its FourCC, without resetting it. It silently replaces an
    /// earlier one with the same FourCC.
    ///
    /// @param depayloader  not owned; must outlive the list
    VLX_API void addDepayloader(Depayloader& depayloader);

    /// Selects a depayloader without a SequenceInfo packet, for streams whose codec header arrives
    /// by other means.
    ///
    /// @return the result of the depayloader's processCodecHeader(); false, with no depayloader
    ///         selected, if the FourCC is not registered
    VLX_API bool setOutOfBandInfo(std::uint32_t fourcc, const ByteView& codecHeader);

    /// Clears the current frame and the selection, then resets every depayloader in ascending order
    /// of FourCC.
    VLX_API void reset();

    /// Processes one packet: a SequenceInfo selects a depayloader and gives it the codec header; a
    /// Frame is unwrapped by the selected depayloader. The getters are updated field by field:
    /// after an error, the fields that could be read are new, and the media data is still that of
    /// the previous frame.
    ///
    /// @param packetData  one complete packet; valid only during the call
    /// @pre packetData.size() > 4; checked by assertion
    VLX_API ConsumePacketRetcode consumePacket(const ByteView& packetData);

    /// @return media data of the last unwrapped frame; valid until the next packet or reset
    VLX_API const Buffer& getCurrentFrameMediaData() const;

    /// @return media data of the last unwrapped frame, moved out; the list's own copy is then empty
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
    // Atomic because a receiver's clock thread reads it while the worker replaces it.
    std::atomic<Depayloader*> m_currentDepayloader = nullptr;
};

/// FourCC of uncompressed PCM audio, "PCMA" in wire order.
extern VLX_API const std::uint32_t PcmFourcc;

/// Sends uncompressed, interleaved PCM audio. Frames travel unchanged.
class VLX_API PcmPayloader : public Payloader
{
public:
    /// Creates a payloader whose codec header is empty until setNewFormat() is called.
    PcmPayloader();
    ~PcmPayloader() override;

    /// Replaces the codec header, without validating or announcing it: call the sender's
    /// startNewSequence() afterwards.
    ///
    /// @param sampleRate    samples per second and channel
    /// @param numChannels   interleaved channels; only the low byte is sent
    /// @param sampleFormat  format of each sample; only the low byte is sent
    /// @thread not while a call of a sender that uses this payloader is running
    void setNewFormat(
        std::uint32_t sampleRate,
        std::uint32_t numChannels,
        audioUtils::PcmFormat sampleFormat);
};

/// Receives uncompressed, interleaved PCM audio. Frames travel unchanged.
///
/// Read the format in the receiver's new-sequence callback. Any thread may call the getters, but
/// only in that callback are the three values consistent and accepted.
class VLX_API PcmDepayloader : public Depayloader
{
public:
    /// Creates a depayloader without a format, until the first header.
    PcmDepayloader();
    ~PcmDepayloader() override;

    /// Parses a codec header field by field. The fields of a rejected header remain set.
    ///
    /// @param codecHeader  six bytes; more are ignored
    /// @return false if the header is too short, the rate or the channel count is 0, or the format
    ///         is not a PcmFormat
    bool processCodecHeader(const ByteView& codecHeader) override;

    /// @return samples per second and channel; 0 before the first header
    std::uint32_t getSampleRate() const;

    /// @return interleaved channels; 0 before the first header
    std::uint32_t getNumChannels() const;

    /// @return format of each sample, as sent; may be an invalid value after a rejected header
    audioUtils::PcmFormat getSampleFormat() const;

private:
    // Atomic because an application may read them in a callback on the clock's thread.
    std::atomic<std::uint32_t> m_sampleRate = 0;
    std::atomic<std::uint32_t> m_numChannels = 0;
    std::atomic<audioUtils::PcmFormat> m_sampleFormat = audioUtils::PcmFormat{};
};

} // namespace vlx
