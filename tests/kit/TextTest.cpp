// Text from outside, as it is shown.

#include <gtest/gtest.h>

#include <vlxkit/Text.hpp>

namespace vlx::testing
{

namespace
{

TEST(TextTest, NothingReachesATerminalButVisibleCharacters)
{
    using namespace std::string_view_literals;
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"", ""},
        {"plain ~!\"\\", "plain ~!\"\\"},
        {"Grüße, 音声, 🎵, e\u0301", "Grüße, 音声, 🎵, e\u0301"},
        {"a\nb\tc\x1b[2J\x7f", "a\\x0ab\\x09c\\x1b[2J\\x7f"},
        {"\0x"sv, "\\x00x"},
        {"\u0080\u009b\u009f\u00a0\u00a1", "\\xc2\\x80\\xc2\\x9b\\xc2\\x9f\u00a0\u00a1"},
        {"\u200a\u200b\u200f\u2010", "\u200a\\xe2\\x80\\x8b\\xe2\\x80\\x8f\u2010"},
        {"\u2027\u2028\u202e\u202f", "\u2027\\xe2\\x80\\xa8\\xe2\\x80\\xae\u202f"},
        {"\u2066\ufeff\u061c\u00ad", "\\xe2\\x81\\xa6\\xef\\xbb\\xbf\\xd8\\x9c\\xc2\\xad"},
        {"\U000e0041\U000e0fff", "\\xf3\\xa0\\x81\\x81\\xf3\\xa0\\xbf\\xbf"},
        {"\ue000\U0010ffff", "\\xee\\x80\\x80\\xf4\\x8f\\xbf\\xbf"},
        // Not UTF-8: a single byte, cut off, too long for its value, a surrogate, beyond the last.
        {"\x80z\xff", "\\x80z\\xff"},
        {"\xc3", "\\xc3"},
        {"\xe2\x82x\xf0\x9f\x8e", "\\xe2\\x82x\\xf0\\x9f\\x8e"},
        {"\xc0\xaf\xc1\xbf", "\\xc0\\xaf\\xc1\\xbf"},
        {"\xe0\x9f\xbf\xf0\x8f\xbf\xbf", "\\xe0\\x9f\\xbf\\xf0\\x8f\\xbf\\xbf"},
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"\xf4\x90\x80\x80\xf5\x80\x80\x80", "\\xf4\\x90\\x80\\x80\\xf5\\x80\\x80\\x80"}};
    for (const auto& [text, shown] : rows)
    {
        EXPECT_EQ(kit::toPrintable(text), shown);
        EXPECT_EQ(kit::toPrintable(shown), shown) << "shown twice";
        EXPECT_EQ(kit::quote(text), "\"" + std::string(shown) + "\"");
    }
}

TEST(TextTest, LongTextIsCutBetweenCharacters)
{
    EXPECT_EQ(kit::toPrintable("123456", 6), "123456");
    EXPECT_EQ(kit::toPrintable("1234567", 6), "123...");
    EXPECT_EQ(kit::toPrintable("12\n", 6), "12\\x0a");
    EXPECT_EQ(kit::toPrintable("12\n4", 6), "12...");
    EXPECT_EQ(kit::toPrintable("1üü\n", 6), "1ü...");
    EXPECT_EQ(kit::toPrintable("\n\n", 3), "...");
    EXPECT_EQ(kit::toPrintable(std::string(1 << 20, '\n')).size(), kit::MaxPrintableLength - 1);
    EXPECT_EQ(kit::toPrintable(std::string(1000, 'x')), std::string(1000, 'x'));
}

} // namespace

} // namespace vlx::testing
