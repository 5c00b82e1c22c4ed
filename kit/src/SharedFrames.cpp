#include "SharedFrames.hpp"

#include <algorithm>
#include <typeinfo>
#include <utility>

#include <sys/stat.h>

namespace vlx::kit
{

namespace
{

using Clock = std::chrono::steady_clock;

// Measured at 200 frames a second, median age of shared frames to inline ones: 1.14 at 4,096 bytes,
// 0.69 at 8,192, 0.74 at 16,384 and 0.60 at 32,768.
constexpr std::size_t AutomaticMinBytes = 8192;

constexpr std::uint64_t MinFrames = 4;
// Of frames without a duration.
constexpr std::uint64_t DefaultFrames = 16;
// Packets that wait in Pipeline until a send blocks, about 17, and the frames at both ends.
constexpr std::uint64_t PipelineFrames = 20;

// Far longer than a receiver takes to join with an announcement that names the former ring.
constexpr auto FormerRingTime = std::chrono::seconds(1);

constexpr std::size_t MemoryAlignment = 64; // as in a ring

constexpr mode_t toRingMode(SocketMode mode)
{
    switch (mode)
    {
    case SocketMode::Owner:
        break;
    case SocketMode::Group:
        return 0640;
    case SocketMode::All:
        return 0644;
    }
    return 0600;
}

/// @return group of the sender's directory, and so of its socket file
gid_t findGroup(const std::string& socketFile)
{
    struct stat status = {};
    const std::string directory = socketFile.substr(0, socketFile.rfind('/'));
    return ::stat(directory.c_str(), &status) == 0 ? status.st_gid : ::getegid();
}

std::shared_ptr<std::uint8_t[]> makeMemory(std::size_t size)
{
    struct alignas(MemoryAlignment) Line
    {
        std::uint8_t bytes[MemoryAlignment];
    };
    const auto lines = std::make_shared_for_overwrite<Line[]>(size / MemoryAlignment + 1);
    return {lines, lines[0].bytes};
}

bool keepsBytes(const Payloader& payloader)
{
    return typeid(payloader) == typeid(PcmPayloader) || typeid(payloader) == typeid(Payloader) ||
           dynamic_cast<const PlainPayloader*>(&payloader) != nullptr;
}

} // unnamed namespace

void SharedFrames::setCodec(Payloader& payloader, const std::optional<StreamFormat>& format)
{
    m_payloader = &payloader;
    m_frameNs = static_cast<TimeValue>(m_options.frameDuration.count());
    m_nominalBytes = m_options.frameBytes;
    if (m_nominalBytes == 0 && format)
        m_nominalBytes = format->toSamples(m_frameNs) * format->getBytesPerSample();
    m_isWanted = m_options.carriage == Carriage::Shared ||
                 (m_options.carriage == Carriage::Automatic && m_nominalBytes >= AutomaticMinBytes);
    m_wrapper.reset();
    if (m_isWanted && !keepsBytes(payloader))
        m_payloader = &m_wrapper.emplace(payloader);
    if (!m_isWanted)
        setRing(nullptr);
    else if (m_ring)
        m_ringPayloader.use(payloader, m_ring);
}

bool SharedFrames::makeRoom(
    const std::optional<ByteView>& frame,
    TimeValue duration,
    const std::string& socketFile,
    std::string& notice)
{
    if (m_formerRing && Clock::now() - m_formerSince > FormerRingTime)
        removeFormerRing();
    std::size_t size = m_nominalBytes;
    if (frame)
    {
        const ByteView bytes = m_wrapper ? m_wrapper->wrap(*frame) : *frame;
        m_ringPayloader.setFrame(bytes);
        size = std::max(size, bytes.size());
    }
    const bool isKnown = frame || size != 0;
    const bool hasRoom =
        m_ring && size <= getRingCapacity(m_ring->getLayout()) && m_ring->isLinked();
    if (!m_isWanted || !isKnown || hasRoom)
        return false;
    m_frameNs = duration != 0 ? duration : m_frameNs;
    std::string problem;
    std::shared_ptr<FrameRing> ring = makeRing(size, socketFile, problem);
    if (!ring)
        notice = "frames are not shared in memory but sent in packets: " + problem;
    m_isWanted = ring != nullptr;
    const bool hasChanged = ring || m_ring;
    setRing(std::move(ring));
    return hasChanged;
}

std::shared_ptr<FrameRing>
SharedFrames::makeRing(std::size_t frameBytes, const std::string& socketFile, std::string& problem)
{
    const std::size_t former = m_ring ? getRingCapacity(m_ring->getLayout()) : 0;
    // Doubling soon makes room for growing frames; a removed ring is replaced by one of its size.
    const std::size_t roomy = frameBytes > former ? std::max(frameBytes, 2 * former) : former;
    auto layout = chooseRingLayout(roomy, countFrames(), m_options.maxBytes);
    if (!layout || layout->numSlots < getMinFrames())
        layout = chooseRingLayout(std::max(frameBytes, former), countFrames(), m_options.maxBytes);
    const bool isPipeline = m_protocol == NanomsgProtocol::Pipeline;
    if (!layout || (isPipeline && layout->numSlots < PipelineFrames))
    {
        problem = (isPipeline ? std::to_string(PipelineFrames) : "two") + " frames of " +
                  std::to_string(frameBytes) + " bytes do not fit into " +
                  std::to_string(std::min<std::uint64_t>(m_options.maxBytes, MaxRingBytes)) +
                  " bytes";
        return nullptr;
    }
    layout->name = makeRingName(socketFile, ++m_numRings);
    return FrameRing::make(*layout, toRingMode(m_mode), findGroup(socketFile), problem);
}

/// No frame may be overwritten in Pipeline.
std::uint64_t SharedFrames::getMinFrames() const
{
    return m_protocol == NanomsgProtocol::Pipeline ? PipelineFrames : MinFrames;
}

std::uint64_t SharedFrames::countFrames() const
{
    const auto span = static_cast<TimeValue>(m_options.span.count());
    return std::max(getMinFrames(), m_frameNs == 0 ? DefaultFrames : span / m_frameNs + 1);
}

void SharedFrames::setRing(std::shared_ptr<FrameRing> ring)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::swap(m_ring, ring);
    }
    if (m_ring)
        m_ringPayloader.use(*m_payloader, m_ring);
    else
        m_ringPayloader.forget();
    if (!ring)
        return;
    removeFormerRing();
    m_formerRing = std::move(ring);
    m_formerSince = Clock::now();
}

void SharedFrames::removeFormerRing()
{
    if (m_formerRing)
        m_formerRing->remove();
    m_formerRing.reset();
}

FrameMemory SharedFrames::acquire(std::size_t size) const
{
    std::shared_ptr<FrameRing> ring;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ring = m_ring;
    }
    std::shared_ptr<std::uint8_t[]> slot;
    if (ring && size <= getRingCapacity(ring->getLayout()))
        slot = ring->takeSlot();
    return {slot ? slot : makeMemory(size), size};
}

void SharedFrames::close()
{
    setRing(nullptr);
    removeFormerRing();
    m_numRings = 0;
}

} // namespace vlx::kit
