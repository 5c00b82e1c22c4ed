#include <optional>
#include <string>

#include <gtest/gtest.h>

#include <audioUtils/PcmFormat.hpp>

namespace
{

using audioUtils::PcmFormat;

TEST(PcmFormatTest, NamesSizesAndWireValuesFit)
{
    const std::tuple<PcmFormat, int, std::string, std::size_t> rows[] = {
        {PcmFormat::S8, 0, "S8", 1},        {PcmFormat::U8, 1, "U8", 1},
        {PcmFormat::S16LE, 2, "S16LE", 2},  {PcmFormat::S16BE, 3, "S16BE", 2},
        {PcmFormat::S24LE, 4, "S24LE", 3},  {PcmFormat::S24BE, 5, "S24BE", 3},
        {PcmFormat::S32LE, 6, "S32LE", 4},  {PcmFormat::S32BE, 7, "S32BE", 4},
        {PcmFormat::F32LE, 8, "F32LE", 4},  {PcmFormat::F32BE, 9, "F32BE", 4},
        {PcmFormat::F64LE, 10, "F64LE", 8}, {PcmFormat::F64BE, 11, "F64BE", 8}};
    ASSERT_EQ(std::size(rows), audioUtils::NumPcmFormats);
    for (const auto& [format, wireValue, name, size] : rows)
    {
        SCOPED_TRACE(name);
        EXPECT_EQ(static_cast<int>(format), wireValue);
        EXPECT_TRUE(audioUtils::isValid(format));
        EXPECT_EQ(audioUtils::toString(format), name);
        EXPECT_EQ(audioUtils::toPcmFormat(name), format);
        EXPECT_EQ(audioUtils::bytesPerSample(format), size);
        EXPECT_EQ(audioUtils::bytesPerFrame(format, 6), 6 * size);
    }
    for (const int value : {-1, 12, 0x7fffffff})
    {
        EXPECT_FALSE(audioUtils::isValid(PcmFormat{value}));
        EXPECT_EQ(audioUtils::toString(PcmFormat{value}), "unknown");
        EXPECT_EQ(audioUtils::bytesPerFrame(PcmFormat{value}, 2), 0U);
    }
}

TEST(PcmFormatTest, NamesAreReadAsUsersWriteThem)
{
    const std::pair<const char*, PcmFormat> rows[] = {
        {"s16le", PcmFormat::S16LE},     {"s16", PcmFormat::S16LE},
        {"S24be", PcmFormat::S24BE},     {"f32_LE", PcmFormat::F32LE},
        {"S24_3LE", PcmFormat::S24LE},   {"s24_3be", PcmFormat::S24BE},
        {"float", PcmFormat::F32LE},     {"FLOAT64_BE", PcmFormat::F64BE},
        {"pcm_s16le", PcmFormat::S16LE}, {"pcm_float64_le", PcmFormat::F64LE}};
    for (const auto& [text, format] : rows)
        EXPECT_EQ(audioUtils::toPcmFormat(text), format) << text;
    // "S24_LE" is four bytes wide, though it looks like the packed format.
    for (const char* text :
         {"S24_LE", "pcm_s24_le", "L", "S1", "FLOATLEX", "", "S8LE", "U16LE", "S16 LE", "S_16LE",
          "S16_", "unknown"})
        EXPECT_EQ(audioUtils::toPcmFormat(text), std::nullopt) << text;
    EXPECT_TRUE(audioUtils::isPaddedFormat("S24_le"));
    EXPECT_FALSE(audioUtils::isPaddedFormat("S24_3LE"));
}

} // namespace
