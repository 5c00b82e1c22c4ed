#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vlxkit/Producer.hpp>

#include "support/RawPeers.hpp"
#include "support/RecordedReceiver.hpp"
#include "support/VlxTest.hpp"

namespace vlx::kit
{

namespace
{

using namespace vlx::testing;

constexpr StreamFormat Format{audioUtils::PcmFormat::S16LE, 48000, 2};
constexpr TimeValue FrameNs = 10'000'000;

mode_t getMode(const std::string& path)
{
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::string getParent(const std::string& path)
{
    return path.substr(0, path.rfind('/'));
}

class ProducerTest : public VlxTest
{
protected:
    ProducerOptions makeOptions(NanomsgProtocol protocol = NanomsgProtocol::PubSub) const
    {
        return {.name = getSocketName(), .protocol = protocol};
    }
};

TEST_F(ProducerTest, OpensForThoseWhoMayJoin)
{
    struct Row
    {
        NanomsgProtocol protocol;
        SocketMode mode;
        mode_t directory;
        mode_t file;
    };
    const Row rows[] = {
        {NanomsgProtocol::PubSub, SocketMode::Owner, 0700, 0600},
        {NanomsgProtocol::PubSub, SocketMode::Group, 0750, 0660},
        {NanomsgProtocol::PubSub, SocketMode::All, 0755, 0666},
        {NanomsgProtocol::Pipeline, SocketMode::Owner, 0700, 0},
        {NanomsgProtocol::Pipeline, SocketMode::Group, 01770, 0},
        {NanomsgProtocol::Pipeline, SocketMode::All, 01777, 0}};
    for (const Row& row : rows)
    {
        ProducerOptions options = makeOptions(row.protocol);
        options.socketMode = row.mode;
        Producer producer(options);
        RecordedReceiver receiver;
        ASSERT_TRUE(receiver.start(getSocketName()));
        ASSERT_TRUE(producer.open(Format)) << producer.getProblem();
        EXPECT_EQ(getMode(getParent(producer.getSocketFile())), row.directory);
        if (row.protocol == NanomsgProtocol::PubSub) // in Pipeline the receiver makes it
        {
            EXPECT_EQ(getMode(producer.getSocketFile()), row.file);
        }
        EXPECT_EQ(producer.getName(), getSocketName());
        ASSERT_TRUE(producer.waitForReceivers(1));
        EXPECT_TRUE(producer.send(1000, FrameNs, toBytes("DATA")));
        EXPECT_TRUE(receiver.waitForEvent("frame 1000"));
        EXPECT_EQ(producer.getStatistics().frames, 1U);
        EXPECT_EQ(producer.getStatistics().bytes, 4U);
        EXPECT_EQ(producer.getStatistics().receivers, 1U);
        producer.close();
        receiver.stop();
    }
}

} // unnamed namespace

} // namespace vlx::kit
