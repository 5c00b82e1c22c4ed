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

/// The producing end of one stream: announces it under a name and sends media frames to every
/// receiver that has joined. In PubSub a slow or stopped receiver never delays the sender or other
/// receivers; in Pipeline the sender waits for its one receiver.
///
/// Threads: an initialised sender has one listener thread. Call setCurrentPayloader(),
/// startNewSequence() and sendMediaData() from one producing thread, disableSend() and
/// getNumReceivers() from any thread. Never run initializeSender() or shutdownSender() at the same
/// time as a call that sends, or as each other.
///
/// In PubSub the sending thread does most of the work: it writes to each receiver in turn. A thread
/// of the transport writes the rest of what does not fit into the system's socket buffer.
///
/// Order of calls in a producer:
///   1. open the input, create the payloader, set its format, call setCurrentPayloader();
///   2. initializeSender(), then startNewSequence() at once. A receiver that joins before the first
///      sequence may miss the announcement; it then refuses every frame until the next sequence.
///      After a second initialisation new receivers would first get the previous sequence;
///   3. sendMediaData() for each frame; startNewSequence() again after each change of format;
///   4. wait for the duration of a frame, at least 100 ms: data that has not left the process when
///      the sender shuts down is lost;
///   5. from the stopping thread: disableSend(true), join the producing thread, shutdownSender().
///
/// Every local process can join. In PubSub it also needs write permission for the main channel's
/// socket file, "VlxSender-XXXXXX/nanomsgChannel.ipc" in the base directory (see
/// setBaseDirectory()). The process's umask decides the mode of that file: with the usual 022 the
/// receiver of another user becomes Running and never gets a frame. A producer that serves other
/// users changes the file's mode after initializeSender(); it finds the path in the URI that a
/// sidechannel connection announces.
///
/// In a forked child only a copy without threads exists. Shut it down or destroy it; do not use it
/// otherwise. The transport's own descriptors stay open until the child ends or calls exec.
///
/// Logs to the log4cplus logger "Vellox", which the application configures; without a configuration
/// log4cplus prints a warning.
class Sender
{
public:
    /// Creates a sender that is not open.
    VLX_API Sender();

    /// Calls shutdownSender().
    /// @pre no other thread uses the sender
    VLX_API ~Sender();

    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    /// Sets the base directory, in which the stream's own directory is created. Call it before
    /// initializeSender().
    ///
    /// @param directory  absolute path of an existing directory, which receivers watch; a relative
    ///                   path fails for receivers with another working directory. Empty, the
    ///                   default: "TMPDIR", or "/tmp/vlx" if that is not set
    VLX_API void setBaseDirectory(std::string directory);

    /// Opens the stream: listens on the sidechannel, creates the stream's directory in the base
    /// directory, which must exist (see setBaseDirectory()), and starts the listener thread.
    ///
    /// @param socketAddress             name of the stream in the abstract socket namespace; a name
    ///                                  longer than 107 bytes is logged and cut
    /// @param alternativeSocketAddress  name to use if the first one cannot be bound, cut likewise;
    ///                                  empty: no alternative
    /// @param timeSyncIPAddress         announced address of the network clock; may be empty; must
    ///                                  not contain a 0 byte
    /// @param timeSyncPort              announced port of the network clock, low 16 bits; 0: no
    ///                                  network clock
    /// @param timeSyncProtocol          announced clock of the timestamps
    /// @param nanomsgProtocol           transport of the main channel, PubSub or Pipeline; any
    ///                                  other value stops the process with the assertion "false"
    /// @return true if the stream is open. If it was open before, the arguments are ignored. false
    ///         after at least one ERROR in the log; the reason why a name could not be bound is
    ///         logged as DEBUG. After a failure destroy the object: resources of the completed
    ///         steps stay until the process ends, and a second call may stop the process with an
    ///         assertion
    /// @throws std::system_error if the listener thread cannot be started. The sender then counts
    ///         as initialised; shut it down before initialising it again
    VLX_API bool initializeSender(
        std::string socketAddress,
        std::string alternativeSocketAddress,
        std::string timeSyncIPAddress,
        std::uint32_t timeSyncPort,
        TimeSyncProtocol timeSyncProtocol,
        NanomsgProtocol nanomsgProtocol);

    /// Closes the stream and removes its directory. Does nothing if the sender is not open.
    ///
    /// Frames that have not left the process yet are lost. Sending stays disabled until the next
    /// initialisation.
    /// In a forked child it only closes the copy's descriptors, without waiting or logging; the
    /// parent's stream continues.
    /// @pre no media call is running, and no other thread is shutting the sender down
    VLX_API void shutdownSender();

    /// Sets the current payloader, without announcing it: call startNewSequence() afterwards.
    ///
    /// @param payloader  not owned; must outlive its use by the sender
    /// @thread the producing thread
    VLX_API void setCurrentPayloader(Payloader& payloader);

    /// Opens a new sequence with the current payloader's FourCC and codec header. Announces it to
    /// the receivers that have joined, and keeps the announcement for receivers that join later.
    /// Does nothing if the stream is not open. While sending is disabled, receivers that have
    /// joined never get the announcement and refuse every frame until the next sequence: start
    /// another one after disableSend(false).
    ///
    /// @pre a payloader is set; checked by assertion
    /// @thread the producing thread; may block as sendMediaData() does
    VLX_API void startNewSequence();

    /// Sends one frame in the current sequence. A receiver that cannot take it at once loses it; no
    /// other receiver does. If the stream is not open the frame is dropped, without an error.
    ///
    /// PubSub: never blocks. Pipeline: blocks until a receiver has bound the channel and takes the
    /// frame; only disableSend(true) from another thread ends the wait. Receivers refuse frames
    /// that are sent before the first sequence.
    ///
    /// The library copies the data once, and allocates only for a frame larger than all before. The
    /// transport allocates and fills another copy of each frame.
    ///
    /// @param timestamp  sent unchanged; by convention nanoseconds on the announced clock
    /// @param duration   sent unchanged; by convention nanoseconds
    /// @param mediaData  the frame, in the current payloader's format; not used after the call
    /// @pre a payloader is set; checked by assertion
    /// @throws what the payloader throws; the frame is then not sent
    /// @thread the producing thread, one call at a time; not from inside a payloader, which is
    ///         called with the sender's lock held
    VLX_API void sendMediaData(TimeValue timestamp, TimeValue duration, const ByteView& mediaData);

    /// Disables or enables sending. Disabling unblocks a running sendMediaData() or
    /// startNewSequence() and drops its packet. A successful initialisation enables sending, so a
    /// producer that may have been stopped meanwhile checks its own stop flag again afterwards.
    ///
    /// @param disable  true to disable sending, false to enable it
    /// @thread any
    VLX_API void disableSend(bool disable);

    /// Returns the number of connections of the main channel, as the transport counts them.
    ///
    /// The number can exceed that of the receivers: a client that disconnects right after the
    /// transport's handshake may be counted until the sender is shut down, and every process with
    /// write permission for the socket file can be such a client. If that matters, count the
    /// connections of the sidechannel.
    ///
    /// @return number of connections; 0 if the sender is not initialised
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

    // The main lock. Never held during a poll, a main-channel send, or the join of the listener
    // thread.
    mutable std::mutex m_mutex;
    // Guards every read of m_sendDisabled and its change by disableSend(); set-up and shutdown
    // change it without the lock. Guards opening and closing of m_nanomsgWakeupPipe against
    // disableSend() from another thread. Taken last, and held at most for the one-byte wakeup write
    // and one log line.
    std::mutex m_sendMutex;

    bool m_initialized = false; // guarded by m_mutex
    // Read under m_mutex; atomic because the listener thread clears it without the lock.
    std::atomic<bool> m_listenerThreadRunning = false;

    // Constant while the listener thread runs.
    int m_listenerSocketFD = -1;
    int m_nanomsgMainFD = -1;
    int m_nanomsgWatchFD = -1; // owned by nanomsg, never closed here
    int m_listenerWakeupPipe[2] = {-1, -1};
    int m_nanomsgWakeupPipe[2] = {-1, -1};

    // Read under m_sendMutex; atomic because set-up and shutdown write it without the lock.
    std::atomic<bool> m_sendDisabled = false;

    // As the addresses above.
    int m_nanomsgEndpointID = -1;
    std::string m_tempDirectory;
    std::string m_nanomsgIPCFilePath;

    std::string m_baseDirectory; // empty: from the environment; guarded by m_mutex

    std::atomic<pid_t> m_process = 0; // process that last initialised the sender; 0: none yet

    // Entry 0: read end of m_listenerWakeupPipe; entry 1: m_listenerSocketFD; then one per client.
    // While the listener thread runs, only that thread changes it, under m_mutex; it polls without
    // the lock.
    std::unique_ptr<std::vector<pollfd>> m_pollFDs;
};

} // namespace vlx
