/// Cost of the packet functions: producing and consuming a Frame packet, beside a plain copy of the
/// same bytes.

#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>
#include <log4cplus/logger.h>

#include <vlx/VlxPayload.hpp>

#include "support/AllocationCounter.hpp"

namespace vlx::bench
{
namespace
{

constexpr std::uint16_t SequenceNr = 1;
constexpr TimeValue FrameDurationNs = 1'000'000;

Buffer makeMedia(const benchmark::State& state)
{
    return Buffer(static_cast<std::size_t>(state.range(0)), 0x55);
}

// Runs the operation for the wanted time, and adds size and allocations to the figures.
template <typename Operation>
void measure(benchmark::State& state, Operation operation)
{
    operation(); // buffers have their size from here on
    const std::size_t before = testing::countAllocations();
    for (auto _ : state)
        operation();
    const auto count = static_cast<double>(testing::countAllocations() - before);
    state.counters["allocations"] = count / static_cast<double>(state.iterations());
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void copyMedia(benchmark::State& state)
{
    const Buffer media = makeMedia(state);
    Buffer packet(media.size());
    const auto run = [&]
    {
        benchmark::DoNotOptimize(packet.data());
        std::memcpy(packet.data(), media.data(), media.size());
        benchmark::ClobberMemory();
    };
    measure(state, run);
}

void produceFrame(benchmark::State& state)
{
    const Buffer media = makeMedia(state);
    PcmPayloader payloader;
    Buffer packet;
    const auto run = [&]
    {
        payloader.produceFramePacket(packet, SequenceNr, 1, FrameDurationNs, media);
        benchmark::ClobberMemory();
    };
    measure(state, run);
}

void consumeFrame(benchmark::State& state)
{
    PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    Buffer packet;
    produceSequenceInfoPacket(packet, PcmFourcc, payloader.getCodecHeader(), SequenceNr);
    PcmDepayloader depayloader;
    DepayloaderList list;
    list.addDepayloader(depayloader);
    list.consumePacket(packet);
    payloader.produceFramePacket(packet, SequenceNr, 1, FrameDurationNs, makeMedia(state));
    const auto run = [&]
    {
        if (list.consumePacket(packet) != DepayloaderList::ConsumePacketRetcode::Ok)
            state.SkipWithError("packet refused");
        benchmark::DoNotOptimize(list.getCurrentFrameMediaData().data());
    };
    measure(state, run);
}

// Before the main function, which is Google Benchmark's.
const bool LogIsQuiet = (log4cplus::Logger::getRoot().setLogLevel(log4cplus::OFF_LOG_LEVEL), true);

const std::vector<std::vector<std::int64_t>> Sizes = {{64, 1920, 7680, 65536}};
BENCHMARK(copyMedia)->Name("memcpy")->ArgsProduct(Sizes);
BENCHMARK(produceFrame)->Name("produce")->ArgsProduct(Sizes);
BENCHMARK(consumeFrame)->Name("consume")->ArgsProduct(Sizes);

} // namespace
} // namespace vlx::bench
