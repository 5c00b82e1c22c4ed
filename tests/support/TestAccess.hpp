#pragma once

#include <mutex>
#include <vector>

#include <poll.h>

#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxSender.hpp>

namespace vlx
{

/// Names the private members of a sender that tests reach: `sender.*SenderTestAccess::NanomsgURI`,
/// `(sender.*SenderTestAccess::SetupListener)()`. What its listener thread changes stands under the
/// sender's main lock; everything else is for tests that know that no other thread uses it.
class SenderTestAccess
{
public:
    static constexpr auto ListenerThread = &Sender::m_listenerThread;
    static constexpr auto ListenerThreadRunning = &Sender::m_listenerThreadRunning;
    static constexpr auto Initialized = &Sender::m_initialized;
    static constexpr auto SendDisabled = &Sender::m_sendDisabled;
    static constexpr auto SequenceNr = &Sender::m_sequenceNr;
    static constexpr auto SequenceInfoPacket = &Sender::m_sequenceInfoPacket;
    static constexpr auto NanomsgURI = &Sender::m_nanomsgURI;
    static constexpr auto NanomsgEndpointID = &Sender::m_nanomsgEndpointID;
    static constexpr auto NanomsgMainFD = &Sender::m_nanomsgMainFD;
    static constexpr auto NanomsgWatchFD = &Sender::m_nanomsgWatchFD;
    static constexpr auto NanomsgWakeupPipe = &Sender::m_nanomsgWakeupPipe;
    static constexpr auto ListenerSocketFD = &Sender::m_listenerSocketFD;
    static constexpr auto ListenerWakeupPipe = &Sender::m_listenerWakeupPipe;

    static constexpr auto SetupListener = &Sender::setupListener;
    static constexpr auto ShutdownListener = &Sender::shutdownListener;
    static constexpr auto SetupNanomsgMainChannel = &Sender::setupNanomsgMainChannel;
    static constexpr auto SendToAllClients = &Sender::sendDataOverAllClientConnections;
    static constexpr auto SendOverNanomsg = &Sender::sendDataOverNanomsg;

    /// Holds the sender's main lock, and so its listener thread at the next step that needs it.
    static std::unique_lock<std::mutex> lock(Sender& sender)
    {
        return std::unique_lock<std::mutex>(sender.m_mutex);
    }

    /// @return the descriptors of the poll set; what poll found belongs to the listener thread
    static std::vector<int> getPolledFDs(Sender& sender)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        std::vector<int> fds;
        for (const auto& entry : *sender.m_pollFDs)
            fds.push_back(entry.fd);
        return fds;
    }
};

/// The same for a receiver, whose private state belongs to its worker thread: for receivers whose
/// threads do not run, and for calls from inside a callback.
class ReceiverTestAccess
{
public:
    using ConnectingState = Receiver::ConnectingState;
    using ConnectionRetval = Receiver::ConnectionRetval;

    static constexpr auto State = &Receiver::m_state;
    static constexpr auto ConnectingStateNow = &Receiver::m_connectingState;
    static constexpr auto CurrentSequenceNr = &Receiver::m_currentSequenceNr;
    static constexpr auto InitialInfoPacket = &Receiver::m_initialInfo;
    static constexpr auto SenderAppeared = &Receiver::m_senderAppeared;
    static constexpr auto KeepRunning = &Receiver::m_keepRunning;
    static constexpr auto LoopWakeupPipe = &Receiver::m_loopWakeupPipe;
    static constexpr auto InotifyFD = &Receiver::m_inotifyFD;
    static constexpr auto NanomsgMainFD = &Receiver::m_nanomsgMainFD;
    static constexpr auto NanomsgWatchFD = &Receiver::m_nanomsgWatchFD;
    static constexpr auto SidechannelSocketFD = &Receiver::m_sideChannelSocketFD;
    static constexpr auto SidechannelBuffer = &Receiver::m_sidechannelBuffer;

    static constexpr auto ShouldPacketBeKept = &Receiver::shouldPacketBeKept;
    static constexpr auto ListenForInput = &Receiver::listenForInput;
    static constexpr auto ResetConnectionStates = &Receiver::resetConnectionStates;
    static constexpr auto ReportReceiverIsReady = &Receiver::reportReceiverIsReady;
    static constexpr auto OnClockSyncStateChange = &Receiver::onClockSyncStateChange;
    static constexpr auto ConnectNanomsgMainChannel = &Receiver::connectNanomsgMainChannel;
    static constexpr auto DisconnectNanomsgMainChannel = &Receiver::disconnectNanomsgMainChannel;
    static constexpr auto DisconnectSidechannel = &Receiver::disconnectSidechannel;
    static constexpr auto ReadSidechannelMessage = &Receiver::readSidechannelMessage;
};

} // namespace vlx
