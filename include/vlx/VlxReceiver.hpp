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

/// Credentials of a sender's process, as the kernel recorded them when that process began to listen
/// (SO_PEERCRED).
struct PeerCredentials
{
    pid_t process; ///< 0 if its pid namespace is not visible here; may have been reused since
    uid_t user;    ///< effective user; the overflow user id if it is not mapped here
    gid_t group;   ///< effective group; the overflow group id if it is not mapped here
};

/// Reason why a receiver has refused a Frame packet.
enum class FrameRefusal : std::int32_t
{
    /// The frame belongs to an earlier sequence: normal for a moment after a new sequence begins.
    TooOld = 0,
    /// The frame belongs to a newer sequence whose announcement was missed. All its frames are
    /// refused until the next sequence or connection.
    UnknownSequence = 1,
};

/// The consuming end of one stream: joins the sender of a given name, waits for it if it is not
/// running, reconnects whenever the connection is lost, and calls the application back with each
/// frame.
///
/// Threads: an initialised receiver has a worker and a monitor thread; with a network clock also
/// the clock's thread. Callbacks run on the worker thread unless documented otherwise, with no lock
/// held. A slow callback makes this receiver lose frames, and no other. An exception thrown by a
/// callback ends the process, except in the first call of the state-changed callback.
///
/// Set all callbacks and depayloaders before initializeReceiver(); they are not guarded afterwards.
/// Set up, initialise, shut down and destroy from one thread at a time, and never from inside a
/// callback, where the thread would wait for itself.
///
/// State Running does not guarantee that frames arrive. An application that depends on them watches
/// for frames, and after a timeout, two seconds for example, shuts the receiver down and
/// initialises it again. Causes:
///   - the transport may drop the announcement of a sequence; the receiver then refuses every frame
///     until the next sequence or connection, and setRefusedFrameCallback() reports it;
///   - no frame arrives from a sender of another user whose socket file is not writable here.
///
/// Lost frames are not reported. Compare timestamps: a frame begins at the timestamp of the one
/// before plus its duration, unless frames were lost.
///
/// A receiver reconnects again and again without a pause if the stream's codec is not registered,
/// if its depayloader rejects the codec header, or if the process that holds the name closes each
/// connection at once.
///
/// A receiver trusts the process that holds the sender's name, and any local process can hold it.
/// A first message that is malformed or names an unknown transport stops this process with an
/// assertion. The receiver allocates the message lengths that the sender announces. In Pipeline it
/// binds the path that the sender names and changes that file's mode. Limit this trust by
/// setInitialInfoCheckCallback() and setMaxSidechannelMessageSize().
///
/// In a forked child only a copy without threads exists. Shut it down or destroy it; do not use it
/// otherwise. The transport's own descriptors stay open until the child ends or calls exec.
///
/// Logs to the log4cplus logger "Vellox", which the application configures; without a configuration
/// log4cplus prints a warning.
class Receiver
{
public:
    /// State of the receiver.
    enum class State : std::int32_t
    {
        /// Not initialised, or the worker thread has given up.
        Idle = 0,
        /// Looking for the sender, or between two connections.
        Connecting = 1,
        /// Joined; frames arrive once the sender has announced a sequence.
        Running = 2,
    };

    /// The clock that the stream's timestamps stand on.
    enum class StreamClockType : std::int32_t
    {
        /// Not known: the receiver is not in State::Running.
        Undetermined = 0,
        /// The sender announces no clock.
        NoClock = 1,
        /// CLOCK_MONOTONIC of this machine.
        MonotonicSystemClock = 2,
        /// The network clock that the sender announces.
        SyncedNetClock = 3,
    };

    /// Creates a receiver that is not initialised.
    VLX_API Receiver();

    /// Calls shutdownReceiver(); the same rules apply.
    VLX_API ~Receiver();

    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    /// Registers a depayloader under its FourCC, replacing an earlier one with the same FourCC.
    /// Call it before initializeReceiver().
    ///
    /// @param depayloader  not owned; must outlive the receiver
    VLX_API void addDepayloader(Depayloader& depayloader);

    /// @return the current state
    /// @thread any
    VLX_API State getState() const;

    /// Sets the callback for readiness: a sequence is announced and its clock, if it has one, is
    /// synchronised. Called at most once per connection. With a network clock, frames usually
    /// arrive some tenths of a second earlier, and if the clock's provider does not answer the
    /// callback never comes: an application that needs the clock to play drops or keeps such
    /// frames. With any other clock the callback comes before the first frame.
    /// @thread the worker thread or the clock's thread
    VLX_API void
    setReceiverIsReadyCallback(std::function<void(Depayloader&, StreamClockType)> callback);

    /// Sets the callback for changes of the state. The first call, with Connecting, comes from
    /// inside initializeReceiver(), on the caller's thread; all others come from the worker thread.
    VLX_API void setStateChangedCallback(std::function<void(State)> callback);

    /// Sets the callback for a failure that ends the worker. Called once, after State::Idle, if a
    /// channel could not be opened: no descriptors left, or in Pipeline another receiver has bound
    /// the stream or the sender has just gone. Then shut the receiver down, outside the callback,
    /// before initialising it again.
    VLX_API void setConnectionAttemptFailedCallback(std::function<void()> callback);

    /// Sets the callback for frames. It gets timestamp, duration and media data; the data is valid
    /// only during the call. Without this callback frames are dropped silently.
    VLX_API void
    setMediaDataCallback(std::function<void(TimeValue, TimeValue, const Buffer&)> callback);

    /// Sets the callback for new sequences. Called before the first frame of each; read the format
    /// from the depayloader there.
    VLX_API void setNewSequenceCallback(std::function<void(Depayloader&)> callback);

    /// Sets a check of the sender's first message, called on each connection before the message is
    /// parsed. Without it every sender is accepted.
    ///
    /// The callback gets the InitialInfo packet, of any size and content and valid only during the
    /// call, and the sender's credentials. It returns
    ///   - std::nullopt to refuse: the connection is closed, and the next attempt follows 400 ms
    ///     later, even if a sender appears meanwhile, since other users may be able to fake that;
    ///   - an empty string to accept the sender and the main channel that the packet names;
    ///   - another string to accept the sender, with this URI as the main channel. Whatever the URI
    ///     refers to, a descriptor for example, must stay valid until the state changes to
    ///     Connecting or Idle.
    ///
    /// An accepted packet is parsed as if there were no check: refuse malformed packets and unknown
    /// transports, which would stop the process.
    /// @thread the worker thread, in State::Connecting; a stop waits for the call
    VLX_API void setInitialInfoCheckCallback(std::function<std::optional<std::string>(
                                                 const ByteView& packet,
                                                 const PeerCredentials& peer)> callback);

    /// Limits the length of sidechannel messages. A longer one is refused with an ERROR in the log,
    /// before anything is allocated for it: the first message of a connection as by
    /// setInitialInfoCheckCallback(), with the next attempt 400 ms later; any other counts as a
    /// lost sidechannel. Call it before initializeReceiver().
    ///
    /// @param bytes  longest accepted message in bytes; 0, the default: no limit
    VLX_API void setMaxSidechannelMessageSize(std::uint32_t bytes);

    /// Sets the callback for Frame packets that are refused because of their sequence number. If
    /// FrameRefusal::UnknownSequence continues, an announcement was missed: only the next sequence
    /// or a new connection ends the refusals.
    /// @thread the worker thread
    VLX_API void setRefusedFrameCallback(std::function<void(FrameRefusal)> callback);

    /// Sets the base directory, which is watched for starting senders. Call it before
    /// initializeReceiver().
    ///
    /// @param directory  path of an existing directory, in which the sender creates its own; empty,
    ///                   the default: "TMPDIR", or "/tmp/vlx" if that is not set
    VLX_API void setBaseDirectory(std::string directory);

    /// Starts to connect to the sender and returns at once, even if the sender is not running.
    ///
    /// A starting sender is usually noticed at once, by its directory in the base directory (see
    /// setBaseDirectory()). That directory appears a moment before the sender listens, so sometimes
    /// only the next attempt, 400 ms later, succeeds. If the base directory does not exist at the
    /// time of this call, attempts are made only every 400 ms. A signal that interrupts an attempt
    /// makes it fail, with an ERROR in the log.
    ///
    /// @param socketAddress  the sender's name in the abstract socket namespace; only the first 107
    ///                       bytes count
    /// @return true if the receiver is initialised. If it was before, the argument is ignored.
    ///         false, after one ERROR in the log, if the system has no descriptors left
    /// @throws std::system_error if a thread cannot be started; also what the first call of the
    ///         state-changed callback throws. If the worker could not be started, the receiver is
    ///         Idle again, without a callback; if the monitor could not be started, the receiver
    ///         runs, and shutdownReceiver() ends it
    /// @pre if the receiver has become Idle by itself, shutdownReceiver() was called since;
    ///      otherwise the process stops
    VLX_API bool initializeReceiver(std::string socketAddress);

    /// Stops both threads and waits for them. Does nothing if the receiver is not initialised.
    ///
    /// Takes up to 5 seconds: only a new entry in the watched directory ends the monitor's wait
    /// earlier. It waits for a callback in progress, so hold no lock that a callback takes. An
    /// attempt to connect to a sender with a full backlog, a stopped one (SIGSTOP) for example,
    /// ends after 400 ms.
    ///
    /// In a forked child it only closes the copy's descriptors, without waiting, logging or
    /// callbacks; the parent's receiver continues.
    /// @thread one at a time, not from a callback, not during initializeReceiver()
    VLX_API void shutdownReceiver();

    /// Returns the current time of the stream's clock.
    ///
    /// @return nanoseconds, meaningful in State::Running only: CLOCK_MONOTONIC if the sender
    ///         announces it, otherwise the network clock; 0 if the sender announces no clock, or if
    ///         the network clock is not synchronised yet, as may be the case for the first frames.
    ///         If the clock's provider stops answering, its last estimate continues. Right after a
    ///         connection is lost it may be 0
    /// @thread any
    VLX_API TimeValue getCurrentStreamTime() const;

    /// Returns the clock of the current stream, whether it is synchronised or not.
    ///
    /// @return the type of the clock; Undetermined, with an ERROR in the log, outside
    ///         State::Running. Right after a connection is lost it may be NoClock
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
    // Application threads read it under m_mutex. Atomic because only setReceiverToIdle() writes it
    // under the lock, and the clock's thread reads it without the lock.
    std::atomic<State> m_state = State::Idle;
    ConnectingState m_connectingState = ConnectingState::Undefined; // worker thread
    bool m_connectionAttemptFailed = false;                         // worker thread
    // Read under m_mutex; atomic because the worker clears it without the lock.
    std::atomic<bool> m_keepRunning = false;
    // Never held while a callback runs, across poll, or while joining.
    mutable std::mutex m_mutex;
    std::thread m_thread;
    std::condition_variable m_conditionVariable; // the wait between two attempts, with m_mutex
    std::atomic<bool> m_senderAppeared;          // set by the monitor, without the lock
    std::thread m_fsMonitorThread;
    // Set by exchange: the worker and the clock's thread may both try to report.
    std::atomic<bool> m_receiverIsReadyReported = false;
    // Set once the new-sequence callback has returned. Before that the clock's thread must not
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
    pid_t m_process = 0;     // process that last initialised the receiver; 0: none yet
};

/// @return "idle", "connecting" or "running"; "unknown" for any other value; a static string
VLX_API const char* toString(Receiver::State state);

/// @return "undetermined", "no clock", "monotonic system clock" or "synced net clock"; "unknown"
///         for any other value; a static string
VLX_API const char* toString(Receiver::StreamClockType type);

} // namespace vlx
