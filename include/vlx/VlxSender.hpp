#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include <vlx/SideChannel.hpp>
#include <vlx/VlxTypes.hpp>

struct pollfd;

namespace vlx
{

class Payloader;

/// The producing end of one stream: announces it under a name, and sends media frames to every
/// receiver that has joined. In PubSub a slow or stopped receiver never delays the sender or the
/// others; in Pipeline the sender waits for its one receiver.
///
/// Threads: one listener thread per initialised sender. setCurrentPayloader(), startNewSequence()
/// and sendMediaData() belong to one producing thread; disableSend() and getNumReceivers() may come
/// from any other. initializeSender() and shutdownSender() must not run beside a call that sends,
/// nor beside each other.
///
/// In PubSub most of the work is done by the thread that sends: it writes to each receiver in turn,
/// and what the system's socket buffer does not take at once is left to a thread of the transport.
///
/// The order of a producer:
///   1. open the input, make the payloader, set its format and hand it to setCurrentPayloader();
///   2. initializeSender() and, directly after it, startNewSequence(). A receiver that has joined
///      before the first sequence may miss its announcement, and then refuses every frame until the
///      next one. After a second initialisation newcomers would first be handed the previous
///      sequence;
///   3. sendMediaData() for each frame; startNewSequence() again after each change of format;
///   4. wait for the duration of a frame, at least 100 ms: what has not left the process when the
///      sender shuts down is lost;
///   5. from the stopping thread disableSend(true), join the producing thread, shutdownSender().
///
/// Every local process can join. In PubSub it must also be able to write to the main channel's
/// socket file, "VlxSender-XXXXXX/nanomsgChannel.ipc" in the base directory (see
/// setBaseDirectory()). The file gets the mode that the process's umask leaves: under the usual 022
/// another user's receiver goes Running and never gets a frame. A producer that serves other users
/// changes the file's mode after initializeSender(); the URI that a sidechannel connection
/// announces names the file.
///
/// A forked child has only a copy without threads: it may shut the copy down or destroy it, and
/// nothing else. The transport's own descriptors stay open there until it ends or calls exec.
///
/// Logging goes to the log4cplus logger "Vellox", which the application configures; unconfigured,
/// log4cplus prints a warning of its own.
class Sender
{
public:
    /// A sender that is not open.
    VLX_API Sender();

    /// Calls shutdownSender().
    /// @pre no other thread uses the sender
    VLX_API ~Sender();

    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    /// Sets the directory in which the stream's own directory is made. Before initializeSender().
    ///
    /// @param directory  path of an existing directory, which receivers watch; relative paths do
    ///                   not reach receivers that work elsewhere. Empty, the default: "TMPDIR", or
    ///                   "/tmp/vlx" if that is not set
    VLX_API void setBaseDirectory(std::string directory);

    /// Opens the stream: listens on the sidechannel, makes a directory for the main channel's
    /// socket file in the base directory (see setBaseDirectory(), which is not created here), and
    /// starts the listener thread.
    ///
    /// @param socketAddress             name of the stream in the abstract socket namespace; one
    ///                                  that is longer than 107 bytes is reported and cut
    /// @param alternativeSocketAddress  name to use if the first one cannot be bound, cut likewise;
    ///                                  empty: none
    /// @param timeSyncIPAddress         announced address of the network clock; may be empty, must
    ///                                  not hold a 0 byte
    /// @param timeSyncPort              announced port of the network clock, low 16 bits; 0: none
    /// @param timeSyncProtocol          announced: the clock that timestamps stand on
    /// @param nanomsgProtocol           transport of the main channel, PubSub or Pipeline; any
    ///                                  other value stops the process with the assertion "false"
    /// @return true if the stream is open, also if it was open already: the arguments are then
    ///         ignored. false after at least one ERROR in the log; why a name could not be bound is
    ///         logged as DEBUG. Give the object up then: what was set up before the failing step
    ///         stays until the process ends, and a second try may stop the process with an
    ///         assertion
    /// @throws std::system_error if the listener thread cannot be started. The sender then counts
    ///         as initialised, and must be shut down before it is initialised again
    VLX_API bool initializeSender(
        std::string socketAddress,
        std::string alternativeSocketAddress,
        std::string timeSyncIPAddress,
        std::uint32_t timeSyncPort,
        TimeSyncProtocol timeSyncProtocol,
        NanomsgProtocol nanomsgProtocol);

    /// Closes the stream and removes its directory. Does nothing on a sender that is not open.
    ///
    /// Frames that have not left the process yet are lost. Sending stays disabled until the next
    /// initialisation.
    /// In a forked child the copy of an open sender only closes its descriptors, waits for nothing
    /// and logs nothing; the parent's stream goes on.
    /// @pre no media call is running, and no other thread is shutting the sender down
    VLX_API void shutdownSender();

    /// Makes a payloader the current one. Announces nothing: call startNewSequence() afterwards.
    ///
    /// @param payloader  not owned; must outlive its use by the sender
    /// @thread the producing thread
    VLX_API void setCurrentPayloader(Payloader& payloader);

    /// Opens a new sequence with the current payloader's FourCC and codec header: tells the
    /// receivers that have joined, and keeps the announcement for those that join later. Without an
    /// open stream it does nothing. While sending is disabled nobody who has joined is told, then
    /// or later: they refuse every frame until the next sequence, so start one after
    /// disableSend(false).
    ///
    /// @pre a payloader is set; checked by assertion
    /// @thread the producing thread; can block as sendMediaData() does
    VLX_API void startNewSequence();

    /// Sends one frame in the current sequence. What a receiver cannot take at once is lost to that
    /// receiver. Without an open stream the frame is dropped; no error is reported.
    ///
    /// PubSub: never blocks. Pipeline: blocks while no receiver has bound, or while the one that
    /// has takes nothing; only disableSend(true) from another thread ends that wait. Frames before
    /// the first sequence belong to none, and receivers refuse them.
    ///
    /// This library's own code copies the data once, and allocates nothing once the largest frame
    /// has been sent. The transport beneath makes and allocates another copy of each frame.
    ///
    /// @param timestamp  carried as given; for receivers to mean anything by it, on the announced
    ///                   clock, in nanoseconds
    /// @param duration   carried as given, same unit
    /// @param mediaData  the frame, in the current payloader's format; not used after the call
    /// @pre a payloader is set; checked by assertion
    /// @throws what the payloader throws; the frame is then not sent
    /// @thread the producing thread; never two at once; not from inside a payloader, which is
    ///         called with the sender's lock held
    VLX_API void sendMediaData(TimeValue timestamp, TimeValue duration, const ByteView& mediaData);

    /// Switches sending off or on. Switching off frees a call that blocks in sendMediaData() or
    /// startNewSequence(); its packet is dropped. A successful initialisation switches sending on,
    /// so a producer that is being stopped looks at its own stop flag again afterwards.
    ///
    /// @thread any
    VLX_API void disableSend(bool disable);

    /// Counts connections, not receivers: a client that leaves right after the transport's
    /// handshake may be counted until the sender is shut down, and any process that may write to
    /// the socket file can be such a client. Where that matters, count the connections of the
    /// sidechannel.
    ///
    /// @return connections of the main channel, as the transport counts them; 0 if the sender is
    ///         not initialised
    /// @thread any
    VLX_API std::size_t getNumReceivers() const;

private:
    friend class SenderTestAccess;

    void abandon(); // in a forked copy

    // m_mutex is held by the caller of each of these.
    void prepareInitialInfoPacket();
    bool setupListener();
    void shutdownListener();
    int createNanomsgWakeupPipe();
    void closeNanomsgWakeupPipe();
    bool setupNanomsgMainChannel();
    void shutdownNanomsgMainChannel();
    bool areThereClientConnections() const;
    void sendDataOverAllClientConnections(const ByteView& data);

    // Listener thread, called without m_mutex.
    void listenerThreadLoop();
    bool shouldKeepRunning() const;

    // Producing thread, called without m_mutex.
    void sendDataOverNanomsg(const ByteView& data);

    static void sendDataOverClientConnection(int fd, const ByteView& data);

    // Changed by initializeSender() and shutdownSender() only, under m_mutex, while there is no
    // listener thread.
    std::string m_socketAddress;
    std::string m_alternativeSocketAddress;
    std::string m_timeSyncIPAddress;
    std::uint32_t m_timeSyncPort; // only the low 16 bits are announced
    TimeSyncProtocol m_timeSyncProtocol;
    std::string m_nanomsgURI;
    NanomsgProtocol m_nanomsgProtocol;

    // Guarded by m_mutex. Exception: sendMediaData() reads m_framePacket after unlocking, which is
    // why only one thread may send.
    Payloader* m_payloader = nullptr; // not owned
    Buffer m_initialInfoPacket;
    Buffer m_sequenceInfoPacket; // empty until the first sequence
    Buffer m_framePacket;
    std::uint16_t m_sequenceNr = 0; // 0 only before the first sequence

    std::thread m_listenerThread;

    // The main lock. Never held across poll, a main-channel send, or the join of the listener
    // thread.
    mutable std::mutex m_mutex;
    // Guards m_sendDisabled where it is read and where disableSend() changes it; set-up and
    // shutdown change it without. Guards the opening and closing of m_nanomsgWakeupPipe against a
    // disableSend() from another thread. Taken last, for the one-byte wakeup write and a line of
    // the log at most.
    std::mutex m_sendMutex;

    bool m_initialized = false; // guarded by m_mutex
    // Read under m_mutex; atomic because the listener thread clears it without.
    std::atomic<bool> m_listenerThreadRunning = false;

    // Constant while the listener thread runs.
    int m_listenerSocketFD = -1;
    int m_nanomsgMainFD = -1;
    int m_nanomsgWatchFD = -1; // owned by nanomsg, never closed here
    int m_listenerWakeupPipe[2] = {-1, -1};
    int m_nanomsgWakeupPipe[2] = {-1, -1};

    // Read under m_sendMutex; atomic because set-up and shutdown write it without.
    std::atomic<bool> m_sendDisabled = false;

    // As the addresses above.
    int m_nanomsgEndpointID = -1;
    std::string m_tempDirectory;
    std::string m_nanomsgIPCFilePath;

    std::string m_baseDirectory; // empty: from the environment; guarded by m_mutex

    std::atomic<pid_t> m_process = 0; // that has initialised the sender last; 0: none yet

    // Entry 0: read end of m_listenerWakeupPipe; entry 1: m_listenerSocketFD; then one per client.
    // Only the listener thread changes it while it runs, under m_mutex; it polls it without the
    // lock.
    std::unique_ptr<std::vector<pollfd>> m_pollFDs;
};

} // namespace vlx
