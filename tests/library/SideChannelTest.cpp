#include <string>
#include <vector>

#include <vlx/SideChannel.hpp>

#include "support/VlxTest.hpp"

namespace vlx
{

using namespace vlx::testing;

namespace
{

struct PacketRow
{
    const char* name;
    InitialInfo info;
    Buffer packet;
};

Buffer concatenate(const std::vector<Buffer>& parts)
{
    Buffer whole;
    for (const Buffer& part : parts)
        whole.insert(whole.end(), part.begin(), part.end());
    return whole;
}

std::vector<PacketRow> makePacketRows()
{
    const std::string longURI = "ipc://" + std::string(3000, 'x');
    return {
        {"no address, no port",
         {1, "", 0, TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::PubSub,
          "ipc:///tmp/ab"},
         concatenate({fromHex("0100 00 0000 02 02"), toBytes("ipc:///tmp/ab"), {0}})},
        {"everything set, low bytes first",
         {0x1234, "10.0.0.7", 0xABCD, TimeSyncProtocol::GstNetClock, NanomsgProtocol::Pipeline,
          "ipc:///d/f"},
         concatenate(
             {fromHex("3412"),
              toBytes("10.0.0.7"),
              fromHex("00 CDAB 01 01"),
              toBytes("ipc:///d/f"),
              {0}})},
        {"bytes that are no ASCII",
         {0xFFFF, "\x80\xFF", 0xFFFF, TimeSyncProtocol::MonotonicSystemClock,
          NanomsgProtocol::Pipeline, "\x01\x7F\xFE"},
         fromHex("FFFF 80FF 00 FFFF 02 01 017FFE 00")},
        {"protocols of a later version",
         {1, "", 0, TimeSyncProtocol{7}, NanomsgProtocol{0xFE}, "u"},
         fromHex("0100 00 0000 07 FE 75 00")},
        {"a long location",
         {1, "::1", 8, TimeSyncProtocol::GstNetClock, NanomsgProtocol::PubSub, longURI},
         concatenate({fromHex("0100 3A3A31 00 0800 01 02"), toBytes(longURI), {0}})},
    };
}

void expectEqual(const InitialInfo& actual, const InitialInfo& expected)
{
    EXPECT_EQ(actual.version, expected.version);
    EXPECT_EQ(actual.timeSyncIPAddress, expected.timeSyncIPAddress);
    EXPECT_EQ(actual.timeSyncPort, expected.timeSyncPort);
    EXPECT_EQ(actual.timeSyncProtocol, expected.timeSyncProtocol);
    EXPECT_EQ(actual.nanomsgProtocol, expected.nanomsgProtocol);
    EXPECT_EQ(actual.nanomsgURI, expected.nanomsgURI);
}

} // namespace

TEST(SideChannelTest, InitialInfoIsLaidOutByteForByte)
{
    for (const PacketRow& row : makePacketRows())
    {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(produceInitialInfoPacket(row.info), row.packet);
        expectEqual(parseInitialInfoPacket(row.packet), row.info);
        expectEqual(
            parseInitialInfoPacket(concatenate({row.packet, fromHex("FF 00 41")})), row.info);
    }
}

TEST(SideChannelDeathTest, IncompleteInitialInfoStopsTheProcess)
{
    const Buffer packet = fromHex("0100 41 00 0200 01 02 75 00");
    ASSERT_EQ(parseInitialInfoPacket(packet).nanomsgURI, "u");
    for (std::size_t size = 0; size < packet.size(); ++size)
    {
        SCOPED_TRACE(size);
        const Buffer truncated(packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_ASSERTION(parseInitialInfoPacket(truncated), "ok");
    }
}

TEST(SideChannelTest, NamesAreReadExactly)
{
    EXPECT_EQ(toTimeSyncProtocol("gstnetclock"), TimeSyncProtocol{1});
    EXPECT_EQ(toTimeSyncProtocol("sysclock"), TimeSyncProtocol{2});
    EXPECT_EQ(toNanomsgProtocol("pipeline"), NanomsgProtocol{1});
    EXPECT_EQ(toNanomsgProtocol("pubsub"), NanomsgProtocol{2});

    const std::vector<std::string> others = {"",         "SYSCLOCK", "sysclo",
                                             "Pipeline", "pubsub1",  std::string("pubsub\0", 7)};
    for (const std::string& text : others)
    {
        EXPECT_EQ(toTimeSyncProtocol(text), TimeSyncProtocol::Unknown) << text;
        EXPECT_EQ(toNanomsgProtocol(text), NanomsgProtocol::Unknown) << text;
    }
    EXPECT_EQ(toTimeSyncProtocol("pubsub"), TimeSyncProtocol::Unknown);
    EXPECT_EQ(toNanomsgProtocol("sysclock"), NanomsgProtocol::Unknown);
}

} // namespace vlx
