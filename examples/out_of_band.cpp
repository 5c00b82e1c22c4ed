// Codec information from another source than the stream: packets of a stream were stored without
// its announcement, and are read with a codec header from elsewhere.
//
//   out_of_band

#include <iostream>
#include <vector>

#include <vlx/VlxPayload.hpp>
#include <vlxkit/Logging.hpp>

int main()
{
    const vlx::kit::Logging logging;

    // Stored packets: three frames of 24 bits, four channels.
    vlx::PcmPayloader payloader;
    payloader.setNewFormat(96000, 4, audioUtils::PcmFormat::S24BE);
    std::vector<vlx::Buffer> stored(3);
    for (std::size_t i = 0; i < stored.size(); ++i)
        payloader.produceFramePacket(stored[i], 1, i * 1000, 1000, vlx::Buffer(1152, 1));

    // Known from elsewhere: the codec and its header.
    const vlx::Buffer knownHeader = payloader.getCodecHeader();

    vlx::PcmDepayloader depayloader;
    vlx::DepayloaderList reader;
    reader.addDepayloader(depayloader);
    if (reader.consumePacket(stored[0]) !=
        vlx::DepayloaderList::ConsumePacketRetcode::NoCurrentDepayloader)
        return 1; // nothing can be read yet
    if (!reader.setOutOfBandInfo(vlx::PcmFourcc, knownHeader))
        return 1;
    for (const vlx::Buffer& packet : stored)
    {
        if (reader.consumePacket(packet) != vlx::DepayloaderList::ConsumePacketRetcode::Ok)
            return 1;
        std::cout << reader.getCurrentFrameTimestamp()
                  << " ns: " << reader.getCurrentFrameMediaData().size() << " bytes at "
                  << depayloader.getSampleRate() << " Hz" << std::endl;
    }
}
