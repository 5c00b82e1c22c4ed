// A custom codec with frames of varying size: samples as runs of equal values. The program is both
// sender and receiver, and succeeds when a frame arrives unchanged.
//
//   codec NAME

#include <chrono>
#include <iostream>
#include <semaphore>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>
#include <vlxkit/Producer.hpp>

constexpr std::uint32_t RunsFourcc = 0x534E5552; // "RUNS", lowest byte first
constexpr std::uint8_t RunsVersion = 1;

class RunsPayloader : public vlx::Payloader
{
public:
    RunsPayloader() : Payloader(RunsFourcc)
    {
        m_codecHeader = {RunsVersion}; // announced with every sequence
    }

    // Called once before each wrapFrame(), with the same frame: encode here. The function is const,
    // so the buffer is mutable.
    std::size_t getSizeForWrappedFrame(const vlx::ByteView& frame) const override
    {
        m_encoded.clear(); // keeps its memory
        for (const unsigned char byte : frame)
        {
            const bool continues = !m_encoded.empty() && m_encoded.back() == byte &&
                                   m_encoded[m_encoded.size() - 2] < 255;
            if (continues)
                ++m_encoded[m_encoded.size() - 2];
            else
                m_encoded.insert(m_encoded.end(), {1, byte}); // length, value
        }
        return m_encoded.size();
    }

    void wrapFrame(vlx::Buffer& packet, std::size_t offset, const vlx::ByteView&) override
    {
        std::copy(m_encoded.begin(), m_encoded.end(), packet.data() + offset);
    }

private:
    mutable vlx::Buffer m_encoded;
};

class RunsDepayloader : public vlx::Depayloader
{
public:
    RunsDepayloader() : Depayloader(RunsFourcc) {}

    // Check bytes from other processes. To conceal lost frames, use the gap that the consumer
    // reports: the codec itself does not see them.
    bool processCodecHeader(const vlx::ByteView& header) override
    {
        return header.size() == 1 && header[0] == RunsVersion;
    }

    // It cannot refuse a frame and must not throw: an invalid frame becomes empty.
    vlx::Buffer unwrapFrame(const vlx::ByteView& payload) override
    {
        vlx::Buffer frame;
        for (std::size_t i = 0; i + 1 < payload.size(); i += 2)
            frame.insert(frame.end(), payload[i], payload[i + 1]);
        return frame;
    }
};

int main(int, char** argv)
{
    const vlx::kit::Logging logging;
    vlx::Buffer sent(1000, 7);
    sent.resize(1500, 9);

    RunsPayloader payloader; // both must outlive their users
    RunsDepayloader depayloader;
    std::counting_semaphore<> arrived(0);
    vlx::kit::Consumer consumer(
        {.name = argv[1]}, {.onFrame = [&](const vlx::kit::Frame& frame)
                            {
                                if (frame.data == sent)
                                    arrived.release();
                            }});
    consumer.addDepayloader(depayloader);
    vlx::kit::Producer producer({.name = argv[1]});
    if (!consumer.start() || !producer.open(payloader))
        return 1;
    if (!producer.waitForReceivers(1, std::chrono::seconds(10)) || !producer.send(0, 0, sent))
        return 1;
    return arrived.try_acquire_for(std::chrono::seconds(10)) ? 0 : 1;
}
