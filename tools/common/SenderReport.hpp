#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include <vlx/VlxReceiver.hpp>
#include <vlxkit/AgeHistogram.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>

namespace vlx::tool
{

/// A sender of this machine, and its answer.
struct FoundSender
{
    kit::SenderEntry entry;
    kit::SenderProbe probe;
};

/// Timeout of a probe of a sender that is known to exist.
inline constexpr std::chrono::milliseconds AnswerTimeout{500};

/// @return such as "S16LE 48000 Hz 2ch"
std::string toShortText(const kit::StreamFormat& format);

/// @return shortened caps, such as "video/x-raw, format=I420"; for any other codec, its code
std::string toShortText(const kit::CodecFormat& codec);

/// @return format or codec of the stream; "no sequence yet" or "no answer" if unknown
std::string describeFormat(const kit::SenderProbe& probe);

/// @return such as "sysclock", or "gstnetclock 10.0.0.1:8554"; empty without an answer
std::string describeClock(const kit::SenderProbe& probe);

/// @return "sysclock" or "gstnetclock", as senders announce it; "none" for a stream without a
///         clock, "undetermined" before a stream is joined
const char* toClockName(Receiver::StreamClockType clock);

/// Adds sample format, rate and channels.
void addFormat(nlohmann::ordered_json& json, const kit::StreamFormat& format);

/// Adds the codec's code and, if it has any, its complete caps.
void addFormat(nlohmann::ordered_json& json, const kit::CodecFormat& codec);

/// Adds median, 99th percentile and largest of ages in nanoseconds; null without any.
void addAges(nlohmann::ordered_json& json, const kit::AgeHistogram& ages);

/// @return the number; null if there is none
nlohmann::ordered_json toJson(const std::optional<std::int64_t>& number);

/// @return the result of a probe, for --json
nlohmann::ordered_json toJson(const kit::SenderProbe& probe);

/// @return the same, with what the kernel reports of the sender
nlohmann::ordered_json toJson(const FoundSender& sender);

} // namespace vlx::tool
