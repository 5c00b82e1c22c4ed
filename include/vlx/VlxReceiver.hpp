#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <sys/types.h>

#include <miscUtils/SyncedNetClock.hpp>
#include <vlx/SideChannel.hpp>
#include <vlx/VlxPayload.hpp>
#include <vlx/VlxTypes.hpp>

namespace vlx
{

/// A sender's process as the kernel recorded it when that process began to listen (SO_PEERCRED).
struct PeerCredentials
{
    pid_t process; ///< 0 in a pid namespace that is not visible here; may have been reused since
    uid_t user;    ///< effective; the overflow user id for one that is not mapped here
    gid_t group;   ///< effective; likewise
};

/// Why a receiver has refused a Frame packet.
enum class FrameRefusal : std::int32_t
{
    /// Of a sequence before the current one: normal for an instant after a new sequence.
    TooOld = 0,
    /// Of a newer sequence that was not announced here. All its frames are refused until the next
    /// sequence or connection.
    UnknownSequence = 1,
};

/// The consuming end of one stream: joins the sender of a given name, waits for it if it is not
/// there, joins it again whenever the connection is lost, and calls the application back with each
/// frame.
///
/// Threads: one worker and one monitor thread per initialised receiver, and with a network clock
/// the clock's own. Callbacks run on the worker thread unless they say otherwise, with no lock
/// held. A callback that takes long makes this receiver lose frames, and nobody else. An exception
/// that leaves a callback ends the process, except for the first call of the state-changed
/// callback.
///
/// Set all callbacks and depayloaders before initializeReceiver(); they are not guarded afterwards.
/// Set up, initialise, shut down and destroy from one thread at a time, and never from inside a
/// callback: the thread would wait for itself.
///
/// Running does not mean that frames arrive. An application that cares watches for frames, and
/// after some time without any, two seconds say, shuts the receiver down and initialises it again:
///   - the transport may drop the announcement of a sequence, and the receiver then refuses every
///     frame until the next sequence or connection; setRefusedFrameCallback() reports that;
///   - a sender of another user whose socket file is not writable here never gets a frame across.
///
/// Nothing is said about frames that are lost: a receiver notices them by the timestamps, where one
/// is not the timestamp before plus the duration before.
///
/// A receiver connects and drops over and over, with no pause, while a stream's codec is announced
/// that nobody registered, while its depayloader rejects the codec header, and while a stranger
/// holds the name and closes at once.
///
/// A receiver trusts the process that holds the sender's name, and every local process can hold it:
/// a malformed first message, or one that names an unknown transport, stops this process with an
/// assertion; the lengths that it announces are allocated; in Pipeline the receiver binds the path
/// that it names and changes that file's mode. setInitialInfoCheckCallback() and
/// setMaxSidechannelMessageSize() limit that trust.
///
/// A forked child has only a copy without threads: it may shut the copy down or destroy it, and
/// nothing else. The transport's own descriptors stay open there until it ends or calls exec.
///
/// Logging goes to the log4cplus logger "Vellox", which the application configures; unconfigured,
/// log4cplus prints a warning of its own.
class Receiver
{
public:
    /// What the receiver is doing.
    enum class State : std::int32_t
    {
        /// No worker thread, or one that has given up.
        Idle = 0,
        /// Looking for the sender, or between two connections.
        Connecting = 1,
        /// Joined; frames arrive once the sender has announced a sequence.
        Running = 2,
    };

    /// The clock that the stream's timestamps stand on.
    enum class StreamClockType : std::int32_t
    {
        /// Not known outside State::Running.
        Undetermined = 0,
        /// The sender names no clock.
        NoClock = 1,
        /// CLOCK_MONOTONIC of this machine.
        MonotonicSystemClock = 2,
        /// The network clock that the sender names.
        SyncedNetClock = 3,
    };

    /// A receiver that does nothing yet.
    VLX_API Receiver();

    /// Calls shutdownReceiver(), with everything that is said there.
    VLX_API ~Receiver();

    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    /// Registers a depayloader under its FourCC; a second one with the same FourCC replaces the
    /// first. Before initializeReceiver().
    ///
    /// @param depayloader  not owned; must outlive the receiver
    VLX_API void addDepayloader(Depayloader& depayloader);

    /// @return the current state
    /// @thread any
    VLX_API State getState() const;

    /// Called at most once per connection: a sequence is announced and its clock, if it has one, is
    /// synchronised. With a network clock frames usually come first, some tenths of a second or, as
    /// long as the clock's provider does not answer, for ever: an application that needs the
    /// clock to play drops or keeps them. With any other clock it comes before the first frame.
    /// @thread the worker's or the clock's
    VLX_API void
    setReceiverIsReadyCallback(std::function<void(Depayloader&, StreamClockType)> callback);

    /// Called at each change of state. The first Connecting comes from inside initializeReceiver(),
    /// on its caller's thread; all others come from the worker.
    VLX_API void setStateChangedCallback(std::function<void(State)> callback);

    /// Called once, after State::Idle, when the worker has given up, because a channel could not be
    /// opened: no descriptors left, or in Pipeline another receiver that has bound the stream
    /// already, or a sender that has just gone. Shut the receiver down, outside the callback,
    /// before it is initialised again.
    VLX_API void setConnectionAttemptFailedCallback(std::function<void()> callback);

    /// Called for each frame with timestamp, duration and media data; the data is valid only during
    /// the call. Without this callback frames are dropped silently.
    VLX_API void
    setMediaDataCallback(std::function<void(TimeValue, TimeValue, const Buffer&)> callback);

    /// Called for each new sequence, before its first frame. The place to read the format from the
    /// depayloader.
    VLX_API void setNewSequenceCallback(std::function<void(Depayloader&)> callback);

    /// Sets a check of the sender's first message on the connection that is about to be used,
    /// before the message is parsed. Without it every sender is accepted.
    ///
    /// The callback gets the InitialInfo packet, of any size and content and valid during the call,
    /// and the sender's credentials. It returns
    ///   - std::nullopt to refuse: the connection is closed, and the next attempt follows 400 ms
    ///     later, also when a sender appears meanwhile: other users may be able to make its entry;
    ///   - an empty string to accept, with the main channel that the packet names;
    ///   - another string to accept, with this URI for the main channel in place of the packet's.
    ///     What the URI refers to, a descriptor for instance, must stay until the state changes to
    ///     Connecting or Idle.
    ///
    /// After acceptance the packet is parsed as without a check, so a malformed packet or one that
    /// names an unknown transport still stops the process: refuse such packets.
    /// @thread the worker's, while State::Connecting; a stop waits for the call
    VLX_API void setInitialInfoCheckCallback(std::function<std::optional<std::string>(
                                                 const ByteView& packet,
                                                 const PeerCredentials& peer)> callback);

    /// Limits what a sender's sidechannel message may announce as its length. A longer one is
    /// refused with an ERROR in the log, before anything is allocated for it: the sender's first
    /// message as by setInitialInfoCheckCallback(), with the next attempt 400 ms later, and a later
    /// one as a lost sidechannel. Before initializeReceiver().
    ///
    /// @param bytes  longest message that is accepted; 0, the default: no limit
    VLX_API void setMaxSidechannelMessageSize(std::uint32_t bytes);

    /// Called for each Frame packet that is refused because of its sequence number. Refusals of
    /// FrameRefusal::UnknownSequence that go on mean that an announcement was missed: only the next
    /// sequence or a new connection ends them.
    /// @thread the worker's
    VLX_API void setRefusedFrameCallback(std::function<void(FrameRefusal)> callback);

    /// Sets the directory that is watched for starting senders. Before initializeReceiver().
    ///
    /// @param directory  path of an existing directory, where the sender makes its own; empty, the
    ///                   default: "TMPDIR", or "/tmp/vlx" if that is not set
    VLX_API void setBaseDirectory(std::string directory);

    /// Starts to look for the sender; returns at once, whether there is one or not.
    ///
    /// A signal that interrupts an attempt to connect costs that attempt, with an ERROR in the log.
    /// A sender that starts is usually noticed at once, by its directory in the base directory (see
    /// setBaseDirectory()), and otherwise at the next attempt, 400 ms later: the directory appears
    /// a moment before the sender listens. If the base directory does not exist when this is
    /// called, only every 400 ms.
    ///
    /// @param socketAddress  the sender's name in the abstract socket namespace; only the first 107
    ///                       bytes count
    /// @return true if the receiver works now, also if it did already: the argument is then
    ///         ignored. false after one ERROR in the log if the system has no descriptors left
    /// @throws std::system_error if a thread cannot be started, and what the first callback throws.
    ///         Without a worker the receiver is Idle again, which is not called back; without a
    ///         monitor it runs, and shutdownReceiver() ends it
    /// @pre after State::Idle was reached by itself: shutdownReceiver() was called; otherwise the
    ///      process stops
    VLX_API bool initializeReceiver(std::string socketAddress);

    /// Stops both threads and waits for them. Does nothing on a receiver that was never
    /// initialised, or was shut down before.
    ///
    /// Takes up to 5 seconds: nothing interrupts the monitor's wait, except an entry that somebody
    /// makes in the watched directory. An attempt to connect to a sender whose backlog is full,
    /// since it is stopped (SIGSTOP), say, is given up after 400 ms. A callback in progress is
    /// waited for, so hold no lock that a callback takes.
    ///
    /// In a forked child the copy of an initialised receiver only closes its descriptors, waits for
    /// nothing, logs nothing and makes no callback; the parent's receiver goes on.
    /// @thread one at a time, never from a callback and never beside initializeReceiver()
    VLX_API void shutdownReceiver();

    /// @return nanoseconds on the stream's clock: CLOCK_MONOTONIC if the sender says so, otherwise
    ///         the network clock. That is 0 if the sender names none, while it is not synchronised
    ///         yet, which the first frames may find, and between two connections; while its
    ///         provider is silent, the last estimate goes on. Meaningful in State::Running only,
    ///         and for an instant after a connection is lost it may be 0 there
    /// @thread any
    VLX_API TimeValue getCurrentStreamTime() const;

    /// @return the clock of the current stream; whether it is synchronised already does not count.
    ///         Undetermined, with an ERROR in the log, outside State::Running. For an instant after
    ///         a connection is lost it may be NoClock
    /// @thread any
    VLX_API StreamClockType getStreamClockType() const;

private:
    friend class ReceiverTestAccess;

    enum class ConnectingState : std::int32_t
    {
        Undefined = 0,
        NotConnected = 1,
        WaitingForInitialInfo = 2,
        ConnectingMainChannel = 3,
        Connected = 4,
    };

    enum class ConnectionRetval : std::int32_t
    {
        Success = 0,
        Retry = 1,
        Failure = 2,
    };

    enum class InitialInfoRetval : std::int32_t
    {
        Pending = 0,
        Success = 1,
        Aborted = 2,
        Failure = 3,
        Refused = 4, // by the application's check or its limit
    };

    // Worker thread and state machine. All but the first three run on the worker.
    void startThread();
    void stopThread();
    void undoInitialization();
    void abandon(); // in a forked copy
    void threadLoop();
    bool iterate();
    bool shouldKeepRunning() const; // also the monitor
    void setState(State newState, bool force);
    void setReceiverToIdle();
    void resetConnectionStates(); // m_mutex is held by the caller

    // Connecting. Worker thread.
    bool handleConnectingState();
    void waitBeforeReconnect(bool endsWhenSenderAppears);
    ConnectionRetval connectSidechannel();
    void disconnectSidechannel();
    InitialInfoRetval listenForInitialInfo();
    std::optional<std::string> checkInitialInfo();
    void storeInitialInfo(InitialInfo info);
    void startClockSynchronization();
    ConnectionRetval connectNanomsgMainChannel();
    void disconnectNanomsgMainChannel();

    /// What became of a packet that has arrived.
    enum class PacketResult : std::int32_t
    {
        TooShort,
        Refused, // by its sequence number
        NoMatchingDepayloader,
        NoCurrentDepayloader,
        Error,
        Consumed,
    };

    // Input. Worker thread.
    bool listenForInput();
    PacketResult takePacket(const ByteView& packet);
    bool shouldPacketBeKept(const ByteView& packet);
    bool isSequenceNrTooOld(unsigned short sequenceNr) const;
    void reportRefusedFrame(FrameRefusal refusal) const;

    // Delivery. Worker thread; readiness also on the clock's thread. m_mutex must not be held.
    bool handleSequenceInfoPacket();
    void handleFramePacket();
    void reportReceiverIsReady();
    void onClockSyncStateChange();

    // Sender-presence monitor.
    void startFsMonitorThread();
    void fsMonitorThreadLoop();
    void stopFsMonitorThread();

    // Sidechannel message reader. Worker thread.
    int readSidechannelMessage();
    bool readSomeFromSidechannel(void* buffer, std::size_t length, std::size_t& bytesRead);

    std::string m_socketAddress; // written before the threads exist
    // Worker thread, except for the selected depayloader, which the clock's thread reads.
    DepayloaderList m_depayloaderList;
    // The worker replaces it under m_mutex, others read it under m_mutex.
    InitialInfo m_initialInfo{};
    std::uint16_t m_currentSequenceNr = 0; // worker thread; 0: no sequence adopted yet
    // Read under m_mutex by application threads; atomic because only setReceiverToIdle() writes it
    // under the lock, and the clock's thread reads it without.
    std::atomic<State> m_state = State::Idle;
    ConnectingState m_connectingState = ConnectingState::Undefined; // worker thread
    bool m_connectionAttemptFailed = false;                         // worker thread
    // Read under m_mutex; atomic because the worker clears it without.
    std::atomic<bool> m_keepRunning = false;
    // Never held while a callback runs, across poll, or while joining.
    mutable std::mutex m_mutex;
    std::thread m_thread;
    std::condition_variable m_conditionVariable; // the wait between two attempts, with m_mutex
    std::atomic<bool> m_senderAppeared;          // set by the monitor before it notifies, no lock
    std::thread m_fsMonitorThread;
    // Claimed by exchange: the worker and the clock's thread may both want to report.
    std::atomic<bool> m_receiverIsReadyReported = false;
    // Set once the new-sequence callback has returned: before that the clock's thread must not
    // report readiness, since the depayloader may not have its format yet.
    std::atomic<bool> m_sequenceAnnounced = false;

    // Constant while the threads run.
    std::function<void(Depayloader&, StreamClockType)> m_receiverIsReadyCallback;
    std::function<void(State)> m_stateChangedCallback;
    std::function<void()> m_connectionAttemptFailedCallback;
    std::function<void(TimeValue, TimeValue, const Buffer&)> m_mediaDataCallback;
    std::function<void(Depayloader&)> m_newSequenceCallback;
    std::function<std::optional<std::string>(const ByteView&, const PeerCredentials&)>
        m_initialInfoCheckCallback;
    std::function<void(FrameRefusal)> m_refusedFrameCallback;
    std::uint32_t m_maxSidechannelMessageSize = 0; // 0: no limit
    std::string m_baseDirectory;                   // empty: from the environment

    // Sidechannel message reader; worker thread.
    static constexpr std::uint32_t ReadingPrefix = 0xFFFFFFFF; // in place of a size
    std::uint32_t m_sidechannelMessageSize = ReadingPrefix;
    std::uint32_t m_sidechannelBytesRead = 0; // of the prefix or of the payload
    Buffer m_sidechannelBuffer;               // the message being read

    int m_sideChannelSocketFD = -1; // worker thread
    int m_nanomsgMainFD = -1;       // worker thread
    int m_nanomsgWatchFD = -1;      // owned by nanomsg, never closed here
    // The worker closes it under m_mutex, and stopThread() writes to it under m_mutex.
    int m_loopWakeupPipe[2] = {-1, -1};
    int m_nanomsgEndpointID = -1; // worker thread
    // Thread-safe inside. Stopped without m_mutex wherever a callback of it may be in progress.
    miscUtils::SyncedNetClock m_syncedNetClock;
    int m_inotifyFD = -1;    // constant while the monitor runs
    int m_inotifyWatch = -1; // constant while the monitor runs
    pid_t m_process = 0;     // that has initialised the receiver last; 0: none yet
};

/// @return "idle", "connecting" or "running"; "unknown" for any other value; a static string
VLX_API const char* toString(Receiver::State state);

/// @return "undetermined", "no clock", "monotonic system clock" or "synced net clock"; "unknown"
///         for any other value; a static string
VLX_API const char* toString(Receiver::StreamClockType type);

} // namespace vlx
