#pragma once

#include <cstdint>

#include <vlx/VlxReceiver.hpp>

namespace vlx
{

/// Plays the part of a receiver's worker thread, for receivers whose threads do not run.
class ReceiverTestAccess
{
public:
    using ConnectingState = Receiver::ConnectingState;
    using ConnectionRetval = Receiver::ConnectionRetval;

    explicit ReceiverTestAccess(Receiver& receiver) : m_receiver(receiver) {}

    DepayloaderList& getDepayloaderList()
    {
        return m_receiver.m_depayloaderList;
    }

    std::uint16_t getCurrentSequenceNr() const
    {
        return m_receiver.m_currentSequenceNr;
    }

    ConnectingState getConnectingState() const
    {
        return m_receiver.m_connectingState;
    }

    bool isSequenceAnnounced() const
    {
        return m_receiver.m_sequenceAnnounced;
    }

    int getMainChannel() const
    {
        return m_receiver.m_nanomsgMainFD;
    }

    int getSidechannel() const
    {
        return m_receiver.m_sideChannelSocketFD;
    }

    const Buffer& getSidechannelBuffer() const
    {
        return m_receiver.m_sidechannelBuffer;
    }

    using Pipe = int[2];

    Pipe& wakeupPipe()
    {
        return m_receiver.m_loopWakeupPipe;
    }

    /// @return whether the worker would go on; it is then set to do so
    bool takeKeepRunning()
    {
        return m_receiver.m_keepRunning.exchange(true);
    }

    ConnectionRetval connectMainChannel(const InitialInfo& info)
    {
        m_receiver.m_initialInfo = info;
        return m_receiver.connectNanomsgMainChannel();
    }

    void disconnectMainChannel()
    {
        m_receiver.disconnectNanomsgMainChannel();
    }

    /// Does what makes a receiver run: as a worker that has both channels.
    ///
    /// @param sidechannelFD  owned by the receiver from here on
    void enterRunning(int sidechannelFD, const InitialInfo& info)
    {
        m_receiver.m_sideChannelSocketFD = sidechannelFD;
        m_receiver.m_initialInfo = info;
        m_receiver.m_connectingState = ConnectingState::Connected;
        m_receiver.m_state = Receiver::State::Running;
    }

    /// Does what a worker does when a connection is lost, but keeps the main channel.
    void leaveRunning()
    {
        m_receiver.disconnectSidechannel();
        m_receiver.resetConnectionStates();
        m_receiver.m_state = Receiver::State::Idle;
    }

    bool listenForInput()
    {
        return m_receiver.listenForInput();
    }

    int readSidechannelMessage()
    {
        return m_receiver.readSidechannelMessage();
    }

private:
    Receiver& m_receiver;
};

} // namespace vlx
