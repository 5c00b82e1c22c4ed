#include <vlx/SideChannel.hpp>

#include "base/SenderDirectory.hpp"
#include "support/VlxTest.hpp"

namespace vlx
{

using namespace vlx::testing;

namespace
{

Buffer concatenate(const std::vector<Buffer>& parts)
{
    Buffer whole;
    for (const Buffer& part : parts)
        whole.insert(whole.end(), part.begin(), part.end());
    return whole;
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
    using Sync = TimeSyncProtocol;
    using Main = NanomsgProtocol;
    const std::string longURI = "ipc://" + std::string(3000, 'x');
    const std::pair<InitialInfo, Buffer> rows[] = {
        {{1, "", 0, Sync::MonotonicSystemClock, Main::PubSub, "ipc:///tmp/ab"},
         concatenate({fromHex("0100 00 0000 02 02"), toBytes("ipc:///tmp/ab"), {0}})},
        {{0x1234, "10.0", 0xABCD, Sync::GstNetClock, Main::Pipeline, "ipc:///d/f"},
         concatenate({fromHex("3412 31302E30 00 CDAB 01 01"), toBytes("ipc:///d/f"), {0}})},
        {{0xFFFF, "\x80\xFF", 0xFFFF, Sync::MonotonicSystemClock, Main::Pipeline, "\x01\x7F\xFE"},
         fromHex("FFFF 80FF 00 FFFF 02 01 017FFE 00")},
        {{1, "", 0, Sync{7}, Main{0xFE}, "u"}, fromHex("0100 00 0000 07 FE 75 00")},
        {{1, "::1", 8, Sync::GstNetClock, Main::PubSub, longURI},
         concatenate({fromHex("0100 3A3A31 00 0800 01 02"), toBytes(longURI), {0}})},
    };
    for (const auto& [info, packet] : rows)
    {
        SCOPED_TRACE(info.nanomsgURI);
        EXPECT_EQ(produceInitialInfoPacket(info), packet);
        expectEqual(parseInitialInfoPacket(packet), info);
        expectEqual(parseInitialInfoPacket(concatenate({packet, fromHex("FF 00 41")})), info);
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

    for (const std::string& text :
         {std::string(), std::string("SYSCLOCK"), std::string("Pipeline"),
          std::string("pubsub\0", 7)})
    {
        EXPECT_EQ(toTimeSyncProtocol(text), TimeSyncProtocol::Unknown) << text;
        EXPECT_EQ(toNanomsgProtocol(text), NanomsgProtocol::Unknown) << text;
    }
    EXPECT_EQ(toTimeSyncProtocol("pubsub"), TimeSyncProtocol::Unknown);
    EXPECT_EQ(toNanomsgProtocol("sysclock"), NanomsgProtocol::Unknown);
}

TEST(SenderDirectoryTest, OnlyUrisOfSocketFilesHaveADirectory)
{
    const std::string directory = "/tmp/VlxSender-aZ09xy";
    const std::string file = directory + "/nanomsgChannel.ipc";
    EXPECT_EQ(findSenderDirectory("ipc://" + file), directory);
    const std::string longest = std::string(MaxSocketPathLength - file.size(), '/');
    EXPECT_EQ(findSenderDirectory("ipc://" + longest + file), longest + directory);
    for (const std::string& uri :
         {std::string(), file, "tcp://" + file, "ipc:///" + longest + file, "ipc://" + directory,
          "ipc://" + directory + "/other", "ipc://" + directory + "/../nanomsgChannel.ipc",
          "ipc://" + file.substr(1), std::string("ipc://VlxSender-aZ09xy/nanomsgChannel.ipc"),
          std::string("ipc:///tmp/VlxSender-aZ09x/nanomsgChannel.ipc"),
          std::string("ipc:///tmp/VlxSender-aZ09xyz/nanomsgChannel.ipc"),
          std::string("ipc:///tmp/VlxSender-aZ0.xy/nanomsgChannel.ipc")})
        EXPECT_EQ(findSenderDirectory(uri), "") << uri;
}

} // namespace vlx
