#include <vlx/VlxPayload.hpp>

#include "support/VlxTest.hpp"

namespace vlx
{

using namespace vlx::testing;

using Retcode = DepayloaderList::ConsumePacketRetcode;

namespace
{

constexpr std::uint32_t CodecA = 0x41434441; // "ADCA"

constexpr const char* FourccUnreadable = "Could not read VLX SequenceInfo packet FourCC";
constexpr const char* HeaderRejected =
    "Could not process codec header from VLX SequenceInfo packet";
constexpr const char* TimesUnreadable = "Could not read VLX Frame packet timestamp and duration";

std::string lookingFor(const std::string& fourcc)
{
    return "Consumed SequenceInfo packet; looking for payloader with FourCC \"" + fourcc + "\"";
}

/// Announces less than the base writes.
class UnderstatingPayloader : public Payloader
{
public:
    UnderstatingPayloader() : Payloader(CodecA) {}

    std::size_t getSizeForWrappedFrame(const ByteView& mediaData) const override
    {
        return mediaData.size() - 1;
    }
};

/// Records the calls of a list.
class RecordingDepayloader : public Depayloader
{
public:
    explicit RecordingDepayloader(std::uint32_t fourcc) : Depayloader(fourcc) {}

    bool processCodecHeader(const ByteView& codecHeader) override
    {
        headers.emplace_back(codecHeader.begin(), codecHeader.end());
        return accepts;
    }

    void reset() override
    {
        ++numResets;
    }

    bool accepts = true;
    std::vector<Buffer> headers;
    int numResets = 0;
};

Buffer makePrefix(const Buffer& bytes, std::size_t size)
{
    return Buffer(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
}

TEST(VlxPayloadTest, HeaderIsReadWhateverFollows)
{
    for (unsigned type = 0; type <= 0xFF; ++type)
    {
        const Buffer packet = {static_cast<std::uint8_t>(type), 0xFF, 0x34, 0x12};
        const auto expected =
            type == 1 || type == 2 ? PacketType{static_cast<int>(type)} : PacketType::Unknown;
        EXPECT_EQ(parsePacketType(packet), expected) << type;
        EXPECT_EQ(parsePacketType(makePrefix(packet, 1)), expected) << type;
        EXPECT_EQ(parsePacketSequenceNr(packet), 0x1234) << type;
    }
    EXPECT_EQ(parsePacketSequenceNr(fromHex("02 00 FF80 7F")), 0x80FF);
}

TEST(VlxPayloadDeathTest, BrokenPreconditionsStopTheProcess)
{
    EXPECT_ASSERTION(toString(PacketType::NumPacketTypes), "false");
    EXPECT_ASSERTION(parsePacketType(Buffer()), "packetData.size() >= 1");
    for (std::size_t size = 0; size < 4; ++size)
        EXPECT_ASSERTION(parsePacketSequenceNr(Buffer(size)), "packetData.size() >= 4");
    for (const std::size_t size : {0U, 3U, 4U})
    {
        EXPECT_ASSERTION(DepayloaderList().consumePacket(Buffer(size, 1)), "packetData.size() > 4");
    }

    Buffer packet;
    EXPECT_ASSERTION(
        UnderstatingPayloader().produceFramePacket(packet, 1, 2, 3, Buffer(8)),
        "(packetOffset + mediaData.size()) <= packet.size()");
}

TEST(VlxPayloadTest, PacketsAreLaidOutByteForByte)
{
    Payloader payloader(CodecA);
    EXPECT_EQ(payloader.getFourcc(), CodecA);
    EXPECT_TRUE(payloader.getCodecHeader().empty());
    Buffer packet(64, 0xEE); // of an earlier, longer packet
    const auto produceSequenceInfo =
        [&](std::uint32_t fourcc, const char* codecHeader, std::uint16_t sequenceNr)
    {
        produceSequenceInfoPacket(packet, fourcc, fromHex(codecHeader), sequenceNr);
        return packet;
    };
    const auto produceFrame = [&](std::uint16_t sequenceNr, TimeValue timestamp, TimeValue duration,
                                  const char* mediaData)
    {
        payloader.produceFramePacket(packet, sequenceNr, timestamp, duration, fromHex(mediaData));
        return packet;
    };
    const std::uint8_t* const storage = packet.data();
    EXPECT_EQ(produceSequenceInfo(PcmFourcc, "", 5), fromHex("01 00 0500 50434D41"));
    EXPECT_EQ(
        produceSequenceInfo(0xFFFE8000, "00FF01", 0xFFFF), fromHex("01 00 FFFF 0080FEFF 00FF01"));
    EXPECT_EQ(
        produceFrame(0x0102, 1, 2, "AABB"),
        fromHex("02 00 0201 0100000000000000 0200000000000000 AABB"));
    EXPECT_EQ(
        produceFrame(0xFFFE, 0x0807060504030201, 0xF8F7F6F5F4F3F2F1, "00"),
        fromHex("02 00 FEFF 0102030405060708 F1F2F3F4F5F6F7F8 00"));
    EXPECT_EQ(produceFrame(0, 0, 0, ""), fromHex("02 00 0000 0000000000000000 0000000000000000"));
    EXPECT_EQ(packet.data(), storage);
}

/// A list with one depayloader that accepts, and a frame that it has consumed.
class DepayloaderListTest : public ::testing::Test
{
protected:
    DepayloaderListTest()
    {
        m_list.addDepayloader(m_depayloader);
        EXPECT_EQ(m_list.consumePacket(m_sequenceInfo), Retcode::Ok);
        EXPECT_EQ(m_list.consumePacket(m_frame), Retcode::Ok);
        LogCapture::get().clear();
    }

    void expectFrame(TimeValue timestamp, TimeValue duration, const Buffer& mediaData) const
    {
        EXPECT_EQ(m_list.getCurrentFrameTimestamp(), timestamp);
        EXPECT_EQ(m_list.getCurrentFrameDuration(), duration);
        EXPECT_EQ(m_list.getCurrentFrameMediaData(), mediaData);
    }

    static ::testing::AssertionResult logged(const std::vector<LogExpectation>& expected)
    {
        const ::testing::AssertionResult result = LogCapture::get().isExactly(expected);
        LogCapture::get().clear();
        return result;
    }

    const Buffer m_sequenceInfo = fromHex("01 00 0700 41444341 0102");
    const Buffer m_frame = fromHex("02 FF 0800 0300000000000000 0400000000000000 AABBCC");
    RecordingDepayloader m_depayloader{CodecA};
    DepayloaderList m_list;
};

TEST_F(DepayloaderListTest, ConsumesASequence)
{
    EXPECT_EQ(m_depayloader.headers, std::vector<Buffer>{fromHex("0102")});
    EXPECT_EQ(m_list.getCurrentDepayloader(), &m_depayloader);
    EXPECT_EQ(m_list.getCurrentSequenceNr(), 8);
    EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::Frame);
    expectFrame(3, 4, fromHex("AABBCC"));

    EXPECT_EQ(m_list.consumePacket(makePrefix(m_frame, 20)), Retcode::Ok);
    expectFrame(3, 4, {});
    EXPECT_TRUE(logged({}));

    EXPECT_EQ(m_list.consumePacket(makePrefix(m_sequenceInfo, 8)), Retcode::Ok);
    EXPECT_EQ(m_depayloader.headers.back(), Buffer());
    EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::SequenceInfo);
    EXPECT_TRUE(logged({DebugLog(lookingFor("ADCA")), DebugLog("Matching payloader found")}));
}

TEST_F(DepayloaderListTest, TruncatedPacketsChangeOnlyWhatTheyHold)
{
    for (std::size_t size = 5; size < 8; ++size)
    {
        SCOPED_TRACE(size);
        EXPECT_EQ(m_list.consumePacket(makePrefix(m_sequenceInfo, size)), Retcode::Error);
        EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::SequenceInfo);
        EXPECT_EQ(m_list.getCurrentSequenceNr(), 7);
        EXPECT_EQ(m_list.getCurrentDepayloader(), &m_depayloader);
        EXPECT_TRUE(logged({ErrorLog(FourccUnreadable)}));
    }

    const Buffer frame = fromHex("02 00 0900 0500000000000080 0600000000000080 DD");
    for (std::size_t size = 5; size < 20; ++size)
    {
        SCOPED_TRACE(size);
        EXPECT_EQ(m_list.consumePacket(makePrefix(frame, size)), Retcode::Error);
        EXPECT_EQ(m_list.getCurrentSequenceNr(), 9);
        expectFrame(size < 12 ? 3 : 0x8000000000000005, 4, fromHex("AABBCC"));
        EXPECT_TRUE(logged({ErrorLog(TimesUnreadable)}));
    }
}

TEST_F(DepayloaderListTest, UnknownTypesAreIgnored)
{
    for (const std::uint8_t type : Buffer{0, 3, 9, 255})
    {
        const Buffer packet = {type, 0, type, 0xA0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
        EXPECT_EQ(m_list.consumePacket(packet), Retcode::Ok);
        EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::Unknown);
        EXPECT_EQ(m_list.getCurrentSequenceNr(), 0xA000 + type);
        EXPECT_EQ(m_list.getCurrentDepayloader(), &m_depayloader);
        expectFrame(3, 4, fromHex("AABBCC"));
    }
    EXPECT_TRUE(logged({}));
}

TEST_F(DepayloaderListTest, UnknownCodecDeselects)
{
    const std::pair<const char*, const char*> rows[] = {
        {"42444342", "BDCB"}, {"01020304", "    "}, {"1F207E41", "  ~A"}, {"410A00FF", "A  \xFF"}};
    for (const auto& [fourcc, shown] : rows)
    {
        SCOPED_TRACE(fourcc);
        const Buffer packet = fromHex(std::string("01 00 0100 ") + fourcc + " 01");
        EXPECT_EQ(m_list.consumePacket(packet), Retcode::NoMatchingDepayloader);
        EXPECT_EQ(m_list.getCurrentDepayloader(), nullptr);
        EXPECT_TRUE(logged({DebugLog(lookingFor(shown)), DebugLog("No matching payloader found")}));
    }

    // Without a selection even the size of a frame is not checked.
    for (const std::size_t size : {m_frame.size(), std::size_t{5}})
    {
        EXPECT_EQ(m_list.consumePacket(makePrefix(m_frame, size)), Retcode::NoCurrentDepayloader);
    }
    expectFrame(3, 4, fromHex("AABBCC"));
    EXPECT_EQ(m_list.getCurrentSequenceNr(), 8);
    EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::Frame);
    EXPECT_TRUE(logged({}));
}

TEST_F(DepayloaderListTest, RejectedHeaderKeepsTheSelection)
{
    m_depayloader.accepts = false;
    EXPECT_EQ(m_list.consumePacket(m_sequenceInfo), Retcode::Error);
    EXPECT_TRUE(logged(
        {DebugLog(lookingFor("ADCA")), DebugLog("Matching payloader found"),
         ErrorLog(HeaderRejected)}));
    EXPECT_EQ(m_list.consumePacket(m_frame), Retcode::Ok);

    // Out of band the same holds, without a word.
    EXPECT_FALSE(m_list.setOutOfBandInfo(CodecA, {}));
    EXPECT_EQ(m_list.getCurrentDepayloader(), &m_depayloader);
    m_depayloader.accepts = true;
    EXPECT_TRUE(m_list.setOutOfBandInfo(CodecA, fromHex("03")));
    EXPECT_EQ(m_depayloader.headers.back(), fromHex("03"));
    EXPECT_FALSE(m_list.setOutOfBandInfo(PcmFourcc, {}));
    EXPECT_EQ(m_list.getCurrentDepayloader(), nullptr);
    EXPECT_TRUE(logged({}));

    // The latest one for a FourCC counts; a reset reaches it, and forgets the frame.
    RecordingDepayloader replacement(CodecA);
    m_list.addDepayloader(replacement);
    EXPECT_EQ(m_list.consumePacket(m_sequenceInfo), Retcode::Ok);
    EXPECT_EQ(m_list.getCurrentDepayloader(), &replacement);
    EXPECT_EQ(m_list.stealCurrentFrameMediaData(), fromHex("AABBCC"));
    EXPECT_EQ(m_list.consumePacket(m_frame), Retcode::Ok);
    m_list.reset();
    EXPECT_EQ(replacement.numResets, 1);
    EXPECT_EQ(m_list.getCurrentDepayloader(), nullptr);
    EXPECT_EQ(m_list.getCurrentSequenceNr(), 0);
    EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::Unknown);
    expectFrame(0, 0, {});
}

TEST(VlxPayloadTest, PcmHeaderIsWrittenAndRead)
{
    const std::tuple<const char*, std::uint32_t, std::uint32_t, int, const char*, bool> rows[] = {
        {"stereo", 48000, 2, 3, "80BB0000 02 03", true},
        {"low bytes first", 0x04030201, 255, 11, "01020304 FF 0B", true},
        {"channels cut to a byte", 48000, 258, 0, "80BB0000 02 00", true},
        {"no rate", 0, 2, 3, "00000000 02 03", false},
        {"no channels after the cut", 48000, 256, 3, "80BB0000 00 03", false},
        {"format 12", 48000, 2, 12, "80BB0000 02 0C", false},
        {"format 255", 48000, 2, -1, "80BB0000 02 FF", false},
    };
    PcmPayloader payloader;
    PcmDepayloader depayloader; // one for all, so that nothing is left of the row before
    EXPECT_EQ(payloader.getFourcc(), PcmFourcc);
    EXPECT_TRUE(payloader.getCodecHeader().empty());
    for (const auto& [name, sampleRate, numChannels, sampleFormat, header, accepted] : rows)
    {
        SCOPED_TRACE(name);
        payloader.setNewFormat(sampleRate, numChannels, audioUtils::PcmFormat{sampleFormat});
        EXPECT_EQ(payloader.getCodecHeader(), fromHex(header));

        EXPECT_EQ(depayloader.processCodecHeader(payloader.getCodecHeader()), accepted);
        EXPECT_EQ(depayloader.getSampleRate(), sampleRate);
        EXPECT_EQ(depayloader.getNumChannels(), numChannels & 0xFF);
        EXPECT_EQ(depayloader.getSampleFormat(), audioUtils::PcmFormat{sampleFormat & 0xFF});
    }
}

TEST(VlxPayloadTest, TruncatedPcmHeaderChangesOnlyWhatItHolds)
{
    const Buffer header = fromHex("11000000 02 05 FFFFFFFF");
    for (std::size_t size = 0; size <= header.size(); ++size)
    {
        SCOPED_TRACE(size);
        PcmDepayloader depayloader;
        ASSERT_TRUE(depayloader.processCodecHeader(fromHex("44AC0000 01 09")));
        EXPECT_EQ(depayloader.processCodecHeader(makePrefix(header, size)), size >= 6);
        EXPECT_EQ(depayloader.getSampleRate(), size >= 4 ? 0x11U : 44100U);
        EXPECT_EQ(depayloader.getNumChannels(), size >= 5 ? 2U : 1U);
        EXPECT_EQ(depayloader.getSampleFormat(), audioUtils::PcmFormat{size >= 6 ? 5 : 9});
    }

    EXPECT_EQ(PcmDepayloader().getFourcc(), PcmFourcc);
}

} // namespace

} // namespace vlx
