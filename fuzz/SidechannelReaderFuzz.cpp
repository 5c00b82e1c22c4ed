// The sidechannel's reader over a socket pair: messages and rubbish, written in slices of any
// length, each read compared with a model.

#include <fcntl.h>
#include <sys/ioctl.h>

#include <vlx/VlxReceiver.hpp>

#include "support/Check.hpp"
#include "support/InputReader.hpp"
#include "support/ReceiverAccess.hpp"
#include "support/Sidechannel.hpp"
#include "support/SilentLog.hpp"

namespace
{

using namespace vlx;
using fuzz::check;
using Result = fuzz::Sidechannel::Result;

class Run
{
public:
    Run(const std::uint8_t* data, std::size_t size) : m_input(data, size)
    {
        m_worker.enterRunning(m_sidechannel.open(), {});
    }

    ~Run()
    {
        m_worker.leaveRunning();
    }

    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void play()
    {
        while (!m_input.isEmpty() && m_isConnected)
            step();
        m_sidechannel.close();
        while (m_isConnected)
            read();
    }

private:
    void step()
    {
        const std::uint8_t choice = m_input.take();
        switch (choice % 4)
        {
        case 0:
            m_sidechannel.write(m_input.takeBytes(choice / 4));
            break;
        case 1:
        {
            const ByteView message = m_input.takeBlock();
            m_sidechannel.writeMessage(message, message.size());
            break;
        }
        case 2:
            for (int i = 0; i <= choice / 4 && m_isConnected && m_sidechannel.isReadable(); ++i)
                read();
            break;
        case 3:
            if (choice / 4 == 0 && !m_sidechannel.isReadable())
                failToRead();
            else
                m_sidechannel.write(m_input.takeBytes(1));
            break;
        }
    }

    /// One call, which must neither block nor read more than its share.
    void read()
    {
        const Result expected = m_sidechannel.read();
        const auto result = static_cast<Result>(m_worker.readSidechannelMessage());
        check(result == expected, "a call of the reader ends as it should");
        m_isConnected = result != Result::Gone;
        if (result == Result::Complete)
            check(
                m_worker.getSidechannelBuffer() == m_sidechannel.getMessage(),
                "a message arrives whole and unchanged");

        int numLeft = 0;
        ::ioctl(m_worker.getSidechannel(), FIONREAD, &numLeft);
        check(
            static_cast<std::size_t>(numLeft) == m_sidechannel.getPendingBytes(),
            "a call takes its own bytes and leaves the others");
    }

    /// A read that fails, here because it would block, counts as a connection that is gone.
    void failToRead()
    {
        ::fcntl(m_worker.getSidechannel(), F_SETFL, O_NONBLOCK);
        check(
            static_cast<Result>(m_worker.readSidechannelMessage()) == Result::Gone,
            "a connection that cannot be read is gone");
        m_isConnected = false;
    }

    fuzz::InputReader m_input;
    fuzz::Sidechannel m_sidechannel;
    Receiver m_receiver;
    ReceiverTestAccess m_worker{m_receiver};
    bool m_isConnected = true;
};

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::silenceLog();
    Run(data, size).play();
    return 0;
}
