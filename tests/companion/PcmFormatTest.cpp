#include <optional>
#include <string>

#include <gtest/gtest.h>

#include <audioUtils/PcmFormat.hpp>

namespace
{

using audioUtils::PcmFormat;

TEST(PcmFormatTest, NamesSizesAndWireValuesFit)
{
    const struct
    {
        PcmFormat format;
        int wireValue;
        std::string name;
        std::size_t size;
    } rows[] = {{PcmFormat::S8, 0, "S8", 1},        {PcmFormat::U8, 1, "U8", 1},
                {PcmFormat::S16LE, 2, "S16LE", 2},  {PcmFormat::S16BE, 3, "S16BE", 2},
                {PcmFormat::S24LE, 4, "S24LE", 3},  {PcmFormat::S24BE, 5, "S24BE", 3},
                {PcmFormat::S32LE, 6, "S32LE", 4},  {PcmFormat::S32BE, 7, "S32BE", 4},
                {PcmFormat::F32LE, 8, "F32LE", 4},  {PcmFormat::F32BE, 9, "F32BE", 4},
                {PcmFormat::F64LE, 10, "F64LE", 8}, {PcmFormat::F64BE, 11, "F64BE", 8}};
    ASSERT_EQ(std::size(rows), audioUtils::NumPcmFormats);
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(static_cast<int>(row.format), row.wireValue);
        EXPECT_TRUE(audioUtils::isValid(row.format));
        EXPECT_EQ(audioUtils::toString(row.format), row.name);
        EXPECT_EQ(audioUtils::toPcmFormat(row.name), row.format);
        EXPECT_EQ(audioUtils::bytesPerSample(row.format), row.size);
        EXPECT_EQ(audioUtils::bytesPerFrame(row.format, 6), 6 * row.size);
    }
}

TEST(PcmFormatTest, ForeignValuesAreUnknownAndWithoutSize)
{
    for (const int value : {-1, 12, 0x7fffffff})
    {
        const auto format = static_cast<PcmFormat>(value);
        EXPECT_FALSE(audioUtils::isValid(format));
        EXPECT_EQ(audioUtils::toString(format), "unknown");
        EXPECT_EQ(audioUtils::bytesPerSample(format), 0U);
        EXPECT_EQ(audioUtils::bytesPerFrame(format, 2), 0U);
    }
}

TEST(PcmFormatTest, NamesAreReadAsUsersWriteThem)
{
    const struct
    {
        const char* text;
        std::optional<PcmFormat> format;
    } rows[] = {
        {"s16le", PcmFormat::S16LE},
        {"s16", PcmFormat::S16LE},
        {"S24be", PcmFormat::S24BE},
        {"f32_LE", PcmFormat::F32LE},
        {"S24_3LE", PcmFormat::S24LE},
        {"s24_3be", PcmFormat::S24BE},
        {"float", PcmFormat::F32LE},
        {"FLOAT64_BE", PcmFormat::F64BE},
        {"pcm_s16le", PcmFormat::S16LE},
        {"pcm_float64_le", PcmFormat::F64LE},
        {"pcm_s24_le", std::nullopt},
        // Four bytes wide, though it looks like the packed one.
        {"S24_LE", std::nullopt},
        {"L", std::nullopt},
        {"S1", std::nullopt},
        {"FLOATLEX", std::nullopt},
        {"", std::nullopt},
        {"S8LE", std::nullopt},
        {"U16LE", std::nullopt},
        {"S16 LE", std::nullopt},
        {"S_16LE", std::nullopt},
        {"S16_", std::nullopt},
        {"unknown", std::nullopt}};
    for (const auto& row : rows)
        EXPECT_EQ(audioUtils::toPcmFormat(row.text), row.format) << '"' << row.text << '"';
    EXPECT_TRUE(audioUtils::isPaddedFormat("S24_le"));
    EXPECT_FALSE(audioUtils::isPaddedFormat("S24_3LE"));
}

} // namespace
