#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include <poll.h>

#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxSender.hpp>

namespace vlx
{

/// Reaches the private state of a sender. Guarded members are read and written under the sender's
/// own lock; everything else only where the test knows that no other thread uses it.
class SenderTestAccess
{
public:
    /// Holds the sender's main lock, and so its listener thread at the next step that needs it.
    static std::unique_lock<std::mutex> lock(Sender& sender)
    {
        return std::unique_lock<std::mutex>(sender.m_mutex);
    }

    static std::thread::native_handle_type getListenerThread(Sender& sender)
    {
        return sender.m_listenerThread.native_handle();
    }

    static bool isInitialized(Sender& sender)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        return sender.m_initialized;
    }

    static bool isListenerThreadRunning(Sender& sender)
    {
        return sender.m_listenerThreadRunning;
    }

    static bool isSendDisabled(Sender& sender)
    {
        return sender.m_sendDisabled;
    }

    static const std::string& getNanomsgURI(Sender& sender)
    {
        return sender.m_nanomsgURI;
    }

    static void setNanomsgURI(Sender& sender, std::string uri)
    {
        sender.m_nanomsgURI = std::move(uri);
    }

    static void setNanomsgProtocol(Sender& sender, NanomsgProtocol protocol)
    {
        sender.m_nanomsgProtocol = protocol;
    }

    static std::uint16_t getSequenceNr(Sender& sender)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        return sender.m_sequenceNr;
    }

    static void setSequenceNr(Sender& sender, std::uint16_t sequenceNr)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        sender.m_sequenceNr = sequenceNr;
    }

    static Buffer getSequenceInfoPacket(Sender& sender)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        return sender.m_sequenceInfoPacket;
    }

    /// @return the descriptors of the poll set; what poll found belongs to the listener thread
    static std::vector<int> getPolledFDs(Sender& sender)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        std::vector<int> fds;
        for (const pollfd& entry : *sender.m_pollFDs)
            fds.push_back(entry.fd);
        return fds;
    }

    static int& listenerSocketFD(Sender& sender)
    {
        return sender.m_listenerSocketFD;
    }

    static int& nanomsgMainFD(Sender& sender)
    {
        return sender.m_nanomsgMainFD;
    }

    static int& nanomsgWatchFD(Sender& sender)
    {
        return sender.m_nanomsgWatchFD;
    }

    static int getNanomsgEndpointID(Sender& sender)
    {
        return sender.m_nanomsgEndpointID;
    }

    using Pipe = int[2];

    static Pipe& listenerWakeupPipe(Sender& sender)
    {
        return sender.m_listenerWakeupPipe;
    }

    static Pipe& nanomsgWakeupPipe(Sender& sender)
    {
        return sender.m_nanomsgWakeupPipe;
    }

    static bool setupListener(Sender& sender)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        return sender.setupListener();
    }

    static void shutdownListener(Sender& sender)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        sender.shutdownListener();
    }

    static bool setupNanomsgMainChannel(Sender& sender)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        return sender.setupNanomsgMainChannel();
    }

    static void shutdownNanomsgMainChannel(Sender& sender)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        sender.shutdownNanomsgMainChannel();
    }

    static bool areThereClientConnections(Sender& sender)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        return sender.areThereClientConnections();
    }

    static void sendDataOverAllClientConnections(Sender& sender, const ByteView& data)
    {
        const std::lock_guard<std::mutex> lock(sender.m_mutex);
        sender.sendDataOverAllClientConnections(data);
    }

    static void sendDataOverNanomsg(Sender& sender, const ByteView& data)
    {
        sender.sendDataOverNanomsg(data);
    }
};

/// Reaches the private state of a receiver, which belongs to its worker thread: for receivers whose
/// threads do not run, and for calls from inside a callback.
class ReceiverTestAccess
{
public:
    using ConnectingState = Receiver::ConnectingState;
    using ConnectionRetval = Receiver::ConnectionRetval;

    static std::uint16_t& currentSequenceNr(Receiver& receiver)
    {
        return receiver.m_currentSequenceNr;
    }

    static bool shouldPacketBeKept(Receiver& receiver, const ByteView& packet)
    {
        return receiver.shouldPacketBeKept(packet);
    }

    static void setState(Receiver& receiver, Receiver::State state)
    {
        receiver.m_state = state;
    }

    static ConnectingState& connectingState(Receiver& receiver)
    {
        return receiver.m_connectingState;
    }

    static InitialInfo& initialInfo(Receiver& receiver)
    {
        return receiver.m_initialInfo;
    }

    static bool senderAppeared(Receiver& receiver)
    {
        return receiver.m_senderAppeared;
    }

    static int& sideChannelSocketFD(Receiver& receiver)
    {
        return receiver.m_sideChannelSocketFD;
    }

    static int& nanomsgMainFD(Receiver& receiver)
    {
        return receiver.m_nanomsgMainFD;
    }

    static int getNanomsgWatchFD(Receiver& receiver)
    {
        return receiver.m_nanomsgWatchFD;
    }

    using Pipe = int[2];

    static Pipe& loopWakeupPipe(Receiver& receiver)
    {
        return receiver.m_loopWakeupPipe;
    }

    static int getInotifyFD(Receiver& receiver)
    {
        return receiver.m_inotifyFD;
    }

    static std::atomic<bool>& keepRunning(Receiver& receiver)
    {
        return receiver.m_keepRunning;
    }

    static bool listenForInput(Receiver& receiver)
    {
        return receiver.listenForInput();
    }

    static void resetConnectionStates(Receiver& receiver)
    {
        receiver.resetConnectionStates();
    }

    static void reportReceiverIsReady(Receiver& receiver)
    {
        receiver.reportReceiverIsReady();
    }

    static void onClockSyncStateChange(Receiver& receiver)
    {
        receiver.onClockSyncStateChange();
    }

    static ConnectionRetval connectNanomsgMainChannel(Receiver& receiver)
    {
        return receiver.connectNanomsgMainChannel();
    }

    static void disconnectNanomsgMainChannel(Receiver& receiver)
    {
        receiver.disconnectNanomsgMainChannel();
    }

    static void disconnectSidechannel(Receiver& receiver)
    {
        receiver.disconnectSidechannel();
    }

    static int readSidechannelMessage(Receiver& receiver)
    {
        return receiver.readSidechannelMessage();
    }

    static const Buffer& sidechannelBuffer(Receiver& receiver)
    {
        return receiver.m_sidechannelBuffer;
    }
};

} // namespace vlx
