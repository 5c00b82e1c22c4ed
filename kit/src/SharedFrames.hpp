#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <sys/types.h>

#include <vlxkit/Producer.hpp>

#include "FrameRing.hpp"
#include "RingCodec.hpp"
#include "base/ForkedCopy.hpp"

namespace vlx::kit
{

/// Decides whether a producer's frames travel in shared memory, and owns the rings.
///
/// @thread one at a time, except acquire()
class SharedFrames
{
public:
    SharedFrames(const SharedMemory& options, SocketMode mode, NanomsgProtocol protocol)
        : m_options(options), m_mode(mode), m_protocol(protocol)
    {
    }

    /// Chooses for a new codec or format. makeRoom() must follow.
    ///
    /// @param payloader  must outlive its use
    void setCodec(Payloader& payloader, const std::optional<StreamFormat>& format);

    /// @return whether makeRoom() has to be called for each frame
    bool isActive() const
    {
        return m_isWanted || m_wrapper || m_formerRing;
    }

    /// Makes a ring, if the next frame needs one and there is none that can hold it.
    ///
    /// @param frame       not set: before the first frame, of nominal size
    /// @param duration    of the frame, nanoseconds; 0: unknown
    /// @param socketFile  of the open sender
    /// @param notice      receives the reason if frames are no longer shared
    /// @return whether getPayloader() has changed and must be announced
    bool makeRoom(
        const std::optional<ByteView>& frame,
        TimeValue duration,
        const std::string& socketFile,
        std::string& notice);

    /// @return the payloader of the packets
    Payloader& getPayloader()
    {
        return m_ring ? static_cast<Payloader&>(m_ringPayloader) : *m_payloader;
    }

    /// See Producer::acquire().
    FrameMemory acquire(std::size_t size) const;

    /// Removes the rings, except in a forked child.
    void close();

    /// In a forked child: no longer waits for locks.
    void abandon()
    {
        makeAnew(m_mutex);
    }

private:
    std::shared_ptr<FrameRing>
    makeRing(std::size_t frameBytes, const std::string& socketFile, std::string& problem);
    std::uint64_t getMinFrames() const;
    std::uint64_t countFrames() const;
    void setRing(std::shared_ptr<FrameRing> ring);
    void removeFormerRing();

    const SharedMemory m_options;
    const SocketMode m_mode;
    const NanomsgProtocol m_protocol;

    Payloader* m_payloader = nullptr;          // of the frames
    std::optional<WrappedPayloader> m_wrapper; // of a codec that changes the bytes
    RingPayloader m_ringPayloader;
    bool m_isWanted = false;
    std::size_t m_nominalBytes = 0;          // 0: unknown
    TimeValue m_frameNs = 0;                 // 0: unknown
    unsigned m_numRings = 0;                 // made for the present sender
    std::shared_ptr<FrameRing> m_formerRing; // receivers that are joining may still need it
    std::chrono::steady_clock::time_point m_formerSince;

    mutable std::mutex m_mutex; // guards changes of the pointer, by the thread that sends
    std::shared_ptr<FrameRing> m_ring;
};

} // namespace vlx::kit
