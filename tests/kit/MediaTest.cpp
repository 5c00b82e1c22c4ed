// The codec VLXM: heads and caps.

#include <limits>

#include <gtest/gtest.h>

#include <vlxkit/Discovery.hpp>
#include <vlxkit/Media.hpp>

namespace vlx::kit
{

namespace
{

constexpr auto Least = std::numeric_limits<std::int64_t>::min();
constexpr auto Largest = std::numeric_limits<std::uint64_t>::max();

TEST(MediaTest, HeadsHaveTheDocumentedBytes)
{
    const Buffer zero(8, 0);
    const struct
    {
        const char* name;
        MediaHead head;
        Buffer flags;
        Buffer pts;
        Buffer position;
        Buffer number = Buffer(8, 0);
    } rows[] = {
        {"zero", {0, 0, 0}, {0, 0, 0, 0}, zero, zero},
        {"nothing set", {}, {0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0x80}, Buffer(8, 0xFF)},
        {"each byte has its place",
         {MediaHead::DeltaUnit | MediaHead::Droppable, 0x0807060504030201, 0x1817161514131211,
          0x28},
         {33, 0, 0, 0},
         {1, 2, 3, 4, 5, 6, 7, 8},
         {0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18},
         {0x28, 0, 0, 0, 0, 0, 0, 0}},
        {"presented earlier, all flags",
         {127, -2, Largest - 1},
         {127, 0, 0, 0},
         {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
         {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
        {"the largest values that can be set",
         {0, Least + 1, Largest - 1},
         {0, 0, 0, 0},
         {1, 0, 0, 0, 0, 0, 0, 0x80},
         {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        Buffer expected = row.flags;
        expected.insert(expected.end(), 4, 0);
        expected.insert(expected.end(), row.pts.begin(), row.pts.end());
        expected.insert(expected.end(), row.position.begin(), row.position.end());
        expected.insert(expected.end(), row.number.begin(), row.number.end());
        expected.insert(expected.end(), {'x', 'y'});
        Buffer frame(MediaHeadBytes + 2, 'z');
        frame[MediaHeadBytes] = 'x';
        frame[MediaHeadBytes + 1] = 'y';
        writeMediaHead(row.head, frame.data());
        EXPECT_EQ(frame, expected);

        std::fill_n(&frame[4], 4, 0xAA); // a later version may use what is reserved
        frame[0] |= 0x80;
        frame[3] = 0xFF;
        for (std::size_t size = 0; size <= frame.size(); ++size)
        {
            const auto parsed = parseMediaFrame(ByteView(frame.data(), size));
            ASSERT_EQ(parsed.has_value(), size >= MediaHeadBytes) << size;
            if (!parsed)
                continue;
            EXPECT_EQ(parsed->head, row.head);
            EXPECT_EQ(parsed->data.data(), frame.data() + MediaHeadBytes);
            EXPECT_EQ(parsed->data.size(), size - MediaHeadBytes);
        }
    }
}

TEST(MediaTest, CapsArePrintableText)
{
    using namespace std::string_view_literals;
    const std::tuple<const char*, std::string, bool> rows[] = {
        {"empty", "", false},
        {"video", "video/x-raw, format=(string)I420, width=(int)1920", true},
        {"one character", "a", true},
        {"other characters", "text/x-raw, title=(string)\"Grüße 音声\"", true},
        {"as long as possible", std::string(MaxMediaCapsBytes, 'x'), true},
        {"too long", std::string(MaxMediaCapsBytes + 1, 'x'), false},
        {"zero at the end", std::string("video/x-raw\0"sv), false},
        {"line feed", "video/x-raw\nx", false},
        {"delete", "video/x-raw\x7f", false},
        {"other direction", "video/x-raw\u202e", false},
        {"not UTF-8", "video/x-raw\xff", false},
    };
    for (const auto& [name, text, isValid] : rows)
    {
        SCOPED_TRACE(name);
        EXPECT_EQ(isMediaCaps(text), isValid);
        CodecFormat codec{MediaFourcc, Buffer(text.begin(), text.end())};
        EXPECT_EQ(getMediaCaps(codec), isValid ? std::optional(text) : std::nullopt);
        codec.fourcc = PcmFourcc;
        EXPECT_EQ(getMediaCaps(codec), std::nullopt) << "another codec";
    }
    EXPECT_EQ(
        shortenMediaCaps("video/x-raw, format=(string)I420, width=(int)1920, height=(int)1080, "
                         "framerate=(fraction)30/1, note=(string)\\(b\\)"),
        "video/x-raw, format=I420, width=1920, height=1080, framer...");
    EXPECT_EQ(
        shortenMediaCaps("a, b=(int)1, c=(d), (e)=\"f(g)h\", i=(j"),
        "a, b=1, c=, (e)=\"f(g)h\", i=");
    EXPECT_EQ(
        shortenMediaCaps(
            "a, b=(buffer)01ff, c=(int)1, d=(buffer)< 01, 02 >, e=(int)2, f=(buffer)0"),
        "a, c=1, e=2");
    EXPECT_EQ(shortenMediaCaps("a, b=(buffer)<1"), "a");
    EXPECT_EQ(toFourccText(MediaFourcc), "VLXM");
}

} // unnamed namespace

} // namespace vlx::kit
