// Parses codec headers and payloads of the kit: of any media, and of frames in shared memory, which
// it then reads from an existing ring. Writing the parsed values gives the same bytes, and each
// frame that is read equals the one that was written.

#include <FrameRing.hpp>
#include <unistd.h>

#include <vlxkit/Media.hpp>
#include <vlxkit/Text.hpp>

#include "support/Fuzz.hpp"

namespace
{

using namespace vlx;
using namespace vlx::kit;
using fuzz::check;

constexpr std::size_t NumSlots = 3;

/// A ring whose slots hold their own numbers.
class Target
{
public:
    Target()
    {
        RingLayout layout = chooseRingLayout(8000, NumSlots, MaxRingBytes).value();
        const std::string digits = std::to_string(1'000'000 + ::getpid() % 1'000'000);
        layout.name = "vlx-" + digits.substr(1);
        std::string problem;
        m_ring = FrameRing::make(layout, 0600, ::getegid(), problem);
        check(m_ring != nullptr, problem.c_str());
        for (std::size_t i = 0; i < NumSlots; ++i)
        {
            const RingPlace place =
                m_ring->publish(Buffer(getRingCapacity(layout), static_cast<std::uint8_t>(i)));
            check(place.slot == i && place.generation == i + 1, "slots are used in turn");
        }
        check(m_reader.open(layout, ::geteuid()).empty(), "the ring can be read");
        m_ring->remove();
    }

    void read(const RingPlace& place)
    {
        if (!m_reader.read(place, m_bytes))
            return;
        check(place.slot < NumSlots && place.generation == place.slot + 1, "the slot has it");
        check(m_bytes == Buffer(place.length, static_cast<std::uint8_t>(place.slot)), "not mixed");
    }

private:
    std::shared_ptr<FrameRing> m_ring;
    RingReader m_reader;
    Buffer m_bytes;
};

/// Small numbers often, so that places inside the ring occur.
std::uint64_t takeNumber(fuzz::InputReader& input)
{
    const std::uint8_t choice = input.take();
    return choice < 64    ? choice % 4
           : choice < 160 ? input.take<std::uint16_t>()
                          : input.take<std::uint64_t>();
}

void checkMedia(const ByteView& bytes)
{
    if (const auto frame = parseMediaFrame(bytes))
    {
        Buffer again(MediaHeadBytes);
        writeMediaHead(frame->head, again.data());
        check(parseMediaFrame(again)->head == frame->head, "the same head");
        check(again.size() + frame->data.size() == bytes.size(), "the rest is data");
    }
    if (const auto caps = getMediaCaps({MediaFourcc, Buffer(bytes.begin(), bytes.end())}))
        check(quote(*caps).size() <= bytes.size() + 2, "needs no escapes");
}

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Target target;
    if (const auto header = parseRingHeader({data, size}))
    {
        const Buffer again = produceRingHeader(*header);
        check(again.size() == size && std::equal(again.begin(), again.end(), data), "the same");
        check(RingReader().open(header->layout, ::geteuid()) != "", "no such ring is there");
    }
    if (const auto place = parseRingPlace({data, size}))
    {
        Buffer again;
        writeRingPlace(*place, again, 0);
        check(again.size() == RingPlaceBytes && fuzz::startsWith({data, size}, again), "the same");
        target.read(*place);
    }
    checkMedia({data, size});
    fuzz::InputReader input(data, size);
    while (!input.isEmpty())
        target.read(
            {static_cast<std::uint32_t>(takeNumber(input)), takeNumber(input), takeNumber(input),
             takeNumber(input)});
    return 0;
}
