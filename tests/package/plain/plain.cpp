// Touches each library and each header of the package once.

#include <audioUtils/PcmFormat.hpp>
#include <miscUtils/MiscUtils.hpp>
#include <vlx/SideChannel.hpp>
#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxSender.hpp>

int main()
{
    vlx::PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S24LE);
    vlx::PcmDepayloader depayloader;
    const vlx::Sender sender;
    const vlx::Receiver receiver;

    const bool works = depayloader.processCodecHeader(payloader.getCodecHeader()) &&
                       depayloader.getSampleFormat() == audioUtils::PcmFormat::S24LE &&
                       sender.getNumReceivers() == 0 &&
                       receiver.getState() == vlx::Receiver::State::Idle &&
                       vlx::toNanomsgProtocol("pubsub") == vlx::NanomsgProtocol::PubSub &&
                       miscUtils::getMonotonicSysclockTime() > 0;
    return works ? 0 : 1;
}
