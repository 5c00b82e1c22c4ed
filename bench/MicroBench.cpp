/// What do the packet functions cost? Producing and consuming a Frame packet beside a plain copy of
/// the same bytes.

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <benchmark/benchmark.h>
#include <log4cplus/configurator.h>
#include <log4cplus/logger.h>

#include <vlx/VlxPayload.hpp>

#include "support/AllocationCount.hpp"
#include "support/Campaign.hpp"
#include "support/Summaries.hpp"

namespace vlx::bench
{
namespace
{

constexpr std::int64_t Sizes[] = {64, 1920, 7680, 65536};
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
    const std::uint64_t before = countAllocations();
    for (auto _ : state)
        operation();
    const auto iterations = static_cast<double>(state.iterations());
    state.counters["allocations"] = static_cast<double>(countAllocations() - before) / iterations;
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

void copyMedia(benchmark::State& state)
{
    const Buffer media = makeMedia(state);
    Buffer packet(media.size());
    measure(
        state,
        [&]
        {
            benchmark::DoNotOptimize(packet.data());
            std::memcpy(packet.data(), media.data(), media.size());
            benchmark::ClobberMemory();
        });
}

void produceFrame(benchmark::State& state)
{
    const Buffer media = makeMedia(state);
    PcmPayloader payloader;
    Buffer packet;
    measure(
        state,
        [&]
        {
            payloader.produceFramePacket(packet, SequenceNr, 1, FrameDurationNs, media);
            benchmark::ClobberMemory();
        });
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
    measure(
        state,
        [&]
        {
            if (list.consumePacket(packet) != DepayloaderList::ConsumePacketRetcode::Ok)
                state.SkipWithError("packet refused");
            benchmark::DoNotOptimize(list.getCurrentFrameMediaData().data());
        });
}

// Keeps each run as a record of raw data.
class RecordingReporter : public benchmark::BenchmarkReporter
{
public:
    explicit RecordingReporter(Campaign& campaign) : m_campaign(campaign) {}

    bool ReportContext(const Context&) override
    {
        return true;
    }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs)
        {
            m_failed = m_failed || run.error_occurred;
            if (run.run_type != Run::RT_Iteration || run.error_occurred)
                continue;
            m_campaign.add(
                {{"operation", run.run_name.function_name},
                 {"bytes", std::stoul(run.run_name.args)},
                 {"round", run.repetition_index},
                 {"ns", run.GetAdjustedRealTime()},
                 {"bytes_per_s", run.counters.at("bytes_per_second").value},
                 {"allocations", run.counters.at("allocations").value}});
        }
    }

    bool hasFailed() const
    {
        return m_failed;
    }

private:
    Campaign& m_campaign;
    bool m_failed = false;
};

void registerAll()
{
    struct Entry
    {
        const char* name;
        void (*function)(benchmark::State&);
    };
    static constexpr Entry Entries[] = {
        {"memcpy", copyMedia}, {"produce", produceFrame}, {"consume", consumeFrame}};
    for (const auto& [name, function] : Entries)
    {
        auto* registered = benchmark::RegisterBenchmark(name, function);
        for (const std::int64_t size : Sizes)
            registered->Arg(size);
    }
}

bool run(Campaign& campaign)
{
    const bool quick = campaign.getOptions().quick;
    std::vector<std::string> words = {
        "micro", std::string("--benchmark_min_time=") + (quick ? "0.02" : "0.2"),
        "--benchmark_repetitions=" + std::to_string(campaign.getOptions().rounds),
        "--benchmark_enable_random_interleaving=true"};
    std::vector<char*> arguments(words.size());
    std::ranges::transform(words, arguments.begin(), [](std::string& word) { return word.data(); });
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());

    campaign.begin(
        "at least " + std::string(quick ? "0.02" : "0.2") + " s each, " +
        std::to_string(campaign.getOptions().rounds) + " rounds interleaved");
    registerAll();
    RecordingReporter reporter(campaign);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("%s", makeMicroTable(campaign.getRecords()).toText().c_str());
    return !reporter.hasFailed();
}

} // namespace
} // namespace vlx::bench

int main(int argc, char** argv)
{
    log4cplus::BasicConfigurator(log4cplus::Logger::getDefaultHierarchy(), true).configure();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::ERROR_LOG_LEVEL);
    return vlx::bench::runCampaign(
        argc, argv, "Packet functions beside a plain copy.", vlx::bench::run);
}
