#include "MediaFrames.hpp"

#include <algorithm>
#include <memory>
#include <utility>

namespace vlx::gst
{

namespace
{

struct FlagPair
{
    guint buffer;
    std::uint32_t head;
};

constexpr FlagPair FlagPairs[] = {
    {GST_BUFFER_FLAG_DELTA_UNIT, kit::MediaHead::DeltaUnit},
    {GST_BUFFER_FLAG_HEADER, kit::MediaHead::Header},
    {GST_BUFFER_FLAG_MARKER, kit::MediaHead::Marker},
    {GST_BUFFER_FLAG_DISCONT, kit::MediaHead::Discont},
    {GST_BUFFER_FLAG_CORRUPTED, kit::MediaHead::Corrupted},
    {GST_BUFFER_FLAG_DROPPABLE, kit::MediaHead::Droppable},
};

} // unnamed namespace

kit::MediaHead makeHead(GstBuffer* buffer)
{
    kit::MediaHead head;
    for (const FlagPair& pair : FlagPairs)
        if (GST_BUFFER_FLAG_IS_SET(buffer, pair.buffer))
            head.flags |= pair.head;
    if (GST_BUFFER_OFFSET_IS_VALID(buffer))
        head.offset = GST_BUFFER_OFFSET(buffer);
    return head;
}

GstBuffer* makeBuffer(kit::ReceivedFrame&& frame, const kit::MediaHead& head)
{
    auto kept = std::make_unique<kit::ReceivedFrame>(std::move(frame));
    const auto discard = [](gpointer data) { delete static_cast<kit::ReceivedFrame*>(data); };
    Buffer& bytes = kept->data;
    GstBuffer* const buffer = gst_buffer_new_wrapped_full(
        GstMemoryFlags{}, bytes.data(), bytes.size(), kit::MediaHeadBytes,
        bytes.size() - kit::MediaHeadBytes, kept.get(), discard);
    static_cast<void>(kept.release());
    for (const FlagPair& pair : FlagPairs)
        if ((head.flags & pair.head) != 0)
            GST_BUFFER_FLAG_SET(buffer, pair.buffer);
    GST_BUFFER_OFFSET(buffer) = head.offset.value_or(GST_BUFFER_OFFSET_NONE);
    return buffer;
}

bool beginsHeaders(const kit::MediaFrame& first, GstBufferList* headers)
{
    GstBuffer* const header = gst_buffer_list_get(headers, 0);
    const std::size_t common = std::min(first.data.size(), gst_buffer_get_size(header));
    return first.head.number == 1 || ((first.head.flags & kit::MediaHead::Header) != 0 &&
                                      gst_buffer_memcmp(header, 0, first.data.data(), common) == 0);
}

void LossFilter::add(const kit::MediaHead& head, bool isLoss)
{
    const std::uint64_t last = std::exchange(m_lastNumber, head.number);
    m_isLoss = isLoss || (last != 0 && head.number != 0 && head.number != last + 1);
    const bool isDelta = (head.flags & kit::MediaHead::DeltaUnit) != 0;
    // A key frame may be marked as a header, too, but has a PTS. Nothing is missing
    // before the first header.
    const bool isHeader = (head.flags & kit::MediaHead::Header) != 0 && !head.ptsOffsetNs;
    const bool isMissing = (m_isWaiting || m_isLoss) && !(isHeader && head.number == 1);
    m_isWaiting = isMissing && (isDelta || isHeader);
    m_isDamaged = m_isWaiting && !isHeader;
}

} // namespace vlx::gst
