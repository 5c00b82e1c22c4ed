#pragma once

// Worker processes and the memory that they share with the process that runs them.

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <vlx/SideChannel.hpp>

#include "Support.hpp"

namespace vlx::stress
{

/// What a worker process does.
enum class Role
{
    Sender,
    Receiver,
    ChurnClient,         ///< connects to the sidechannel and leaves, again and again
    SilentClient,        ///< joins both channels and never reads
    RubbishSidechannel,  ///< writes rubbish to the sidechannel without end
    RubbishMainChannel,  ///< writes rubbish to the main channel's socket without end
    MessageToPublisher,  ///< sends one well-formed message the wrong way, to the publisher
    MessageToPuller,     ///< announces an endless message to a receiver in pipeline mode
    ImpostorInitialInfo, ///< holds a sender's name and greets with a malformed InitialInfo
    ImpostorPackets,     ///< holds a sender's name and publishes rubbish packets
};

constexpr std::size_t MaxNameLength = 32;
constexpr int NoResource = -1;
constexpr int NumPhases = 3;
constexpr std::size_t FrameBytes = 1920;
constexpr TimeValue FramePeriodNs = 10 * NsPerMs;

/// Plain data, written before the worker starts.
struct WorkerConfig
{
    Role role = Role::Sender;
    std::array<char, MaxNameLength> name{}; ///< the sender's
    NanomsgProtocol protocol = NanomsgProtocol::PubSub;
    std::uint64_t numFrames = 0;   ///< Sender: 0 for no end. ChurnClient: connections
    unsigned sequenceEveryMs = 0;  ///< Sender: a new sequence so often; 0: only the first
    unsigned waitForReceivers = 0; ///< Sender: no frame before so many have joined, and Slot::go
    unsigned killAtLogLine = 0;    ///< dies by SIGKILL when the library logs its n-th line
    unsigned rejoinEveryMs = 0;    ///< Receiver: leaves and joins again so often; 0: never
    std::uint16_t clockPort = 0;   ///< Sender: announces a network clock there
    int resource = NoResource;     ///< RLIMIT_... that is set before the library is used
    unsigned resourceLimit = 0;    ///< RLIMIT_NOFILE: free descriptors; RLIMIT_NPROC: the limit
    bool setUpOnly = false; ///< Sender: ends after the set-up. Receiver: after its first frames
};

/// Exit codes of workers.
enum ExitCode : int
{
    ExitDone = 0,
    ExitRefused = 10,   ///< the library said false, or gave up with a callback
    ExitException = 11, ///< std::system_error, and shut down properly after it
    ExitStarved = 12,   ///< joined, but no frame came
    ExitBroken = 13,    ///< the worker itself could not do its work
};

struct PhaseCounters
{
    std::atomic<std::uint64_t> frames = 0; ///< sent or received
    std::atomic<std::uint64_t> lost = 0;   ///< Receiver: missing between two frames of a connection
    Histogram times;                       ///< Receiver: age on arrival. Sender: time of a send
};

struct LossBurst
{
    std::atomic<TimeValue> from = 0; ///< when the frame before was sent, and the one after
    std::atomic<TimeValue> until = 0;
    std::atomic<std::uint64_t> count = 0;
};

/// One worker's part of the shared memory: written by the worker, read by the orchestrator, except
/// where it says otherwise.
struct Slot
{
    WorkerConfig config; // by the orchestrator, before the worker starts

    std::atomic<bool> go = false; // by the orchestrator

    std::array<PhaseCounters, NumPhases> phases;
    std::array<LossBurst, 256> bursts;
    std::atomic<std::uint32_t> numBursts = 0; // may exceed what fits

    std::atomic<bool> ready = false; // Receiver: takes a sequence's frames; others: at work
    std::atomic<std::uint64_t> incarnation = 0;   // of the sender whose frames come or go
    std::atomic<TimeValue> incarnationSince = 0;  // its first frame here
    std::atomic<TimeValue> lastFrame = 0;         // time of it
    std::atomic<std::uint64_t> joins = 0;         // Receiver: times Running; clients: connections
    std::atomic<std::uint64_t> sequences = 0;     // Receiver: announced; Sender: started
    std::atomic<std::uint64_t> stallRestarts = 0; // Receiver: joined, no frame for 2 s
    std::atomic<bool> gaveUp = false;             // Receiver: connection-attempt-failed came
    std::atomic<std::uint64_t> logLines = 0;
    std::atomic<std::uint64_t> errorLines = 0;
    std::atomic<TimeValue> streamTime = 0;   // Receiver: its stream time ...
    std::atomic<TimeValue> streamTimeAt = 0; // ... and the system's at that moment

    std::uint64_t countFrames() const;
    std::uint64_t countLost() const;
};

constexpr std::size_t NumSlots = 64;

struct SharedBlock
{
    std::atomic<std::uint32_t> phase = 0; // by the orchestrator
    std::atomic<std::uint64_t> lastIncarnation = 0;
    std::array<Slot, NumSlots> slots;
};

/// The main program of a worker process.
///
/// @return its exit code, an ExitCode
int runWorker(SharedBlock& block, std::size_t index);

/// The roles that are no sender and no receiver.
int runHostilePeer(Slot& slot);

/// Maps the block behind a descriptor that the orchestrator handed over.
SharedBlock& mapSharedBlock(int fd);

/// Starts, stops and kills workers. None outlives it, nor the orchestrator, however that ends.
class Fleet
{
public:
    Fleet();
    ~Fleet();
    Fleet(const Fleet&) = delete;
    Fleet& operator=(const Fleet&) = delete;

    /// Starts a worker with fresh counters in a slot; one that is still there is killed.
    /// @thread the main thread: the worker dies with the thread that started it
    Slot& start(std::size_t index, const WorkerConfig& config);

    Slot& operator[](std::size_t index)
    {
        return m_block->slots[index];
    }

    SharedBlock& getBlock()
    {
        return *m_block;
    }

    pid_t getPid(std::size_t index) const
    {
        return m_pids[index];
    }

    bool isRunning(std::size_t index);
    void signal(std::size_t index, int signalNumber);

    /// kill -9, and waits for its end.
    void kill(std::size_t index);
    void killAll();

    /// @return what the worker of a slot, running or not, has written to standard error
    std::string readLastWords(std::size_t index) const;

    /// @return the wait status of the worker that ended; nothing if it had to be killed
    std::optional<int> waitExit(std::size_t index, int limitMs);

private:
    int m_fd = -1;
    SharedBlock* m_block = nullptr;
    std::array<pid_t, NumSlots> m_pids{};
    std::array<int, NumSlots> m_statuses{};
    std::array<int, NumSlots> m_errorFDs{}; // memory files that take standard error; 0: none
};

/// @return "worked", "refused", "SIGABRT", ...; "hung" for nothing
std::string describeStatus(const std::optional<int>& status);

/// @param nameSuffix  of the stream's name, which no other run has
WorkerConfig makeWorker(Role role, const std::string& nameSuffix = "");

/// A sender in SenderSlot and receivers from FirstReceiverSlot on, joined; the sender's first frame
/// waits for all of them.
///
/// @return the receivers' slots; empty if they did not join within 10 s
std::vector<std::size_t>
startStream(Fleet& fleet, std::size_t numReceivers, WorkerConfig sender = makeWorker(Role::Sender));

constexpr std::size_t SenderSlot = 0;
constexpr std::size_t FirstReceiverSlot = 1;

/// Waits until receivers deliver frames of the sender that is now in SenderSlot.
///
/// @return milliseconds from `since` to the first frame in the slowest; nothing if one of them got
///         none within the limit
std::optional<double> waitForDelivery(
    Fleet& fleet,
    const std::vector<std::size_t>& receivers,
    TimeValue since,
    int limitMs);

/// Losses of some receivers, and how many of them no pause of the machine explains.
struct LossSummary
{
    std::uint64_t received = 0;
    std::uint64_t lost = 0;
    std::uint64_t unexplained = 0;
    double largestPauseMs = 0; ///< beside the bursts; without any, over the whole span

    std::string toText() const;
};

/// A loss counts as explained if the probe saw, around it, a pause of at least a frame's period.
///
/// @param from  without any loss, the largest pause since then is told
LossSummary summariseLosses(
    Fleet& fleet,
    const std::vector<std::size_t>& receivers,
    const PauseProbe& probe,
    TimeValue from);

} // namespace vlx::stress
