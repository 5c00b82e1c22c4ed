#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/Discovery.hpp>

#include "FrameQueue.hpp"
#include "base/ForkedCopy.hpp"
#include "base/OwnedDescriptor.hpp"

namespace vlx::kit
{

/// FourCC of streams whose frames lie in shared memory, "VLXR".
inline constexpr std::uint32_t RingFourcc = 0x52584C56;

/// Largest ring that is made or read.
inline constexpr std::uint64_t MaxRingBytes = 1ULL << 30;

/// @return largest frame of a slot, bytes
std::uint64_t getRingCapacity(const RingLayout& layout);

/// @param sender  path or URI of the sender's socket file
/// @param number  of the sender's ring, from 1
/// @return name of a ring: "vlx-", the six characters of the sender's directory and, from the
///         second ring on, a point and the number
std::string makeRingName(const std::string& sender, unsigned number);

/// Chooses the layout of a ring.
///
/// @param frameBytes  that a slot must hold
/// @param numFrames   that should lie in the ring; fewer if there is no room
/// @param maxBytes    of the ring
/// @return without a name; not set if fewer than two slots have room
std::optional<RingLayout>
chooseRingLayout(std::size_t frameBytes, std::uint64_t numFrames, std::uint64_t maxBytes);

/// Codec header of a stream whose frames lie in a ring.
struct RingHeader
{
    RingLayout layout;
    std::uint32_t fourcc = 0; ///< codec of the frames
    Buffer codecHeader = {};  ///< header of that codec
};

Buffer produceRingHeader(const RingHeader& header);

/// @return not set if the header is malformed, or its layout is not valid
std::optional<RingHeader> parseRingHeader(const ByteView& bytes);

/// Payload of a frame that lies in a ring.
struct RingPlace
{
    std::uint32_t slot = 0;
    std::uint64_t offset = 0; ///< in the slot, behind its head
    std::uint64_t length = 0;
    std::uint64_t generation = 0; ///< of the slot's content, never 0

    bool operator==(const RingPlace&) const = default;
};

inline constexpr std::size_t RingPlaceBytes = 28;

void writeRingPlace(const RingPlace& place, Buffer& packet, std::size_t offset);

/// @return not set if the payload is malformed
std::optional<RingPlace> parseRingPlace(const ByteView& payload);

/// A producer's ring: a file in shared memory, locked as long as the producer lives. Frames take
/// the slots in turn, those that were used longest ago first.
class FrameRing : public std::enable_shared_from_this<FrameRing>
{
public:
    /// Makes the file, with all of its memory.
    ///
    /// @param group    of the file
    /// @param problem  receives the reason if there is no ring, as the end of a sentence
    /// @return null if there is no ring
    static std::shared_ptr<FrameRing>
    make(const RingLayout& layout, mode_t mode, gid_t group, std::string& problem);

    ~FrameRing();

    FrameRing(const FrameRing&) = delete;
    FrameRing& operator=(const FrameRing&) = delete;

    const RingLayout& getLayout() const
    {
        return m_layout;
    }

    /// Hands out the memory of a slot, to be filled. It comes back when the last copy of the
    /// pointer is destroyed, and keeps the ring mapped until then.
    ///
    /// @return null if half of the slots are handed out: the others are for copies
    /// @thread any
    std::shared_ptr<std::uint8_t[]> takeSlot();

    /// Makes a frame readable: in place if it lies in a slot that is handed out, otherwise by a
    /// copy.
    ///
    /// @param bytes  at most the capacity of a slot
    /// @thread one at a time
    RingPlace publish(const ByteView& bytes);

    /// @return whether the file still exists
    bool isLinked() const;

    /// Removes the file, except in a forked child; memory that is handed out stays.
    void remove();

private:
    explicit FrameRing(RingLayout layout) : m_layout(std::move(layout)) {}

    int allocate() const;
    int openFile(mode_t mode, gid_t group);
    int prepare(mode_t mode, gid_t group);
    int map();
    void giveBack(std::uint32_t slot);
    std::uint64_t getGeneration(std::uint32_t slot) const;
    void setGeneration(std::uint32_t slot, std::uint64_t generation);
    std::optional<RingPlace> findHeld(const ByteView& bytes) const;
    std::uint8_t* getSlot(std::uint32_t slot) const;

    const RingLayout m_layout;
    const pid_t m_owner = ::getpid();
    OwnedDescriptor m_file;     // locked
    pid_t m_process = 0;        // created the file and will remove it; 0: no file
    void* m_reserved = nullptr; // address range that contains the aligned memory
    std::uint8_t* m_memory = nullptr;
    std::uint64_t m_lastGeneration = 0; // by publish()

    std::mutex m_mutex;
    // Guarded by m_mutex.
    Ring<std::uint32_t> m_free; // used longest ago first
    std::vector<bool> m_isHeld; // per slot
    std::size_t m_numHeld = 0;
};

/// A consumer's access to a ring. Nothing is mapped: the peer may truncate the file at any time.
class RingReader
{
public:
    /// Opens a ring and checks that it is the sender's and complete. An open ring of the same
    /// layout stays.
    ///
    /// @param sender  user of the sending process, as reported by the kernel
    /// @return empty; otherwise the problem, in one line
    std::string open(const RingLayout& layout, uid_t sender);

    void close();

    /// Copies a frame.
    ///
    /// @param bytes  receives the frame; undefined if it is lost
    /// @return false if the frame is not, or no longer, where it should be
    bool read(const RingPlace& place, Buffer& bytes) const;

private:
    bool readAt(std::uint64_t offset, void* bytes, std::size_t size) const;
    bool hasGeneration(std::uint64_t slotOffset, std::uint64_t generation) const;

    RingLayout m_layout;
    OwnedDescriptor m_file;
};

/// Removes rings that dead producers have left: their lock is free.
///
/// @param minAgeSeconds  younger ones stay; not set: only rings of this user, of any age, and
///                       empty files that are older than a minute
/// @thread any
std::vector<DeadEntry> removeDeadRings(std::optional<std::int64_t> minAgeSeconds = {});

} // namespace vlx::kit
