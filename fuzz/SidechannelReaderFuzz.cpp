// Runs the sidechannel's reader over a socket pair. Messages that are written in pieces of any
// length, the last one perhaps incomplete, arrive complete, unchanged and in order, and no read
// takes bytes of the next message.

#include <sys/ioctl.h>

#include "support/Fuzz.hpp"
#include "support/TestAccess.hpp"

namespace
{

using namespace vlx;
using fuzz::check;
using Access = ReceiverTestAccess;

constexpr int MessageComplete = 1; // a result of the reader
constexpr int ConnectionGone = 2;

class Run
{
public:
    void play(fuzz::InputReader input)
    {
        m_receiver.*Access::SidechannelSocketFD = m_peer.open();
        while (!input.isEmpty() && m_isConnected)
        {
            const std::uint8_t choice = input.take();
            const std::size_t count = choice / 4;
            if (choice % 4 == 0)
                addMessage(input.takeBytes(count));
            else if (choice % 4 == 1)
                addMessage(Buffer(16 * count, input.take()));
            else if (choice % 4 == 3)
                write(count == 0 ? m_stream.size() : count);
            else
                for (std::size_t i = 0; i <= count && m_isConnected && countPending() > 0; ++i)
                    read();
        }
        m_peer.close();
        while (m_isConnected)
            read();
        const bool isNextWhole =
            m_numRead < m_messages.size() &&
            m_numWritten >= m_numConsumed + fuzz::frame(m_messages[m_numRead]).size();
        check(
            !isNextWhole || m_messages[m_numRead].empty(),
            "what was written whole arrives, unless an empty message ends the connection");
        (m_receiver.*Access::DisconnectSidechannel)();
    }

private:
    void addMessage(const ByteView& message)
    {
        m_messages.emplace_back(message.begin(), message.end());
        const Buffer framed = fuzz::frame(message);
        m_stream.insert(m_stream.end(), framed.begin(), framed.end());
    }

    void write(std::size_t count)
    {
        m_numWritten += m_peer.write(ByteView(m_stream).subspan(m_numWritten), count);
    }

    std::size_t countPending()
    {
        int size = 0;
        ::ioctl(m_receiver.*Access::SidechannelSocketFD, FIONREAD, &size);
        return static_cast<std::size_t>(size);
    }

    void read()
    {
        const int result = (m_receiver.*Access::ReadSidechannelMessage)();
        m_isConnected = result != ConnectionGone;
        if (result != MessageComplete)
            return;
        check(m_numRead < m_messages.size(), "no message arrives that was not written");
        const Buffer& message = m_messages[m_numRead++];
        check(m_receiver.*Access::SidechannelBuffer == message, "a message arrives unchanged");
        m_numConsumed += fuzz::frame(message).size();
        check(m_numWritten - countPending() == m_numConsumed, "the next one stays where it is");
    }

    fuzz::FramedPeer m_peer;
    Receiver m_receiver;
    Buffer m_stream;
    std::vector<Buffer> m_messages;
    std::size_t m_numWritten = 0;
    std::size_t m_numConsumed = 0;
    std::size_t m_numRead = 0;
    bool m_isConnected = true;
};

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::silenceLog();
    Run().play({data, size});
    return 0;
}
