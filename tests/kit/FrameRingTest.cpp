#include <cstdio>
#include <limits>

#include <FrameRing.hpp>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "SharedMemoryTest.hpp"
#include "support/RawPeers.hpp"
#include "support/ResourceLimit.hpp"

namespace vlx::kit
{

namespace
{

using namespace vlx::testing;

constexpr std::uint64_t Huge = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t NearHalf = 1ULL << 63;
constexpr uid_t Nobody = 65534;

class FrameRingTest : public SharedMemoryTest
{
protected:
    static RingLayout
    makeLayout(std::size_t frameBytes, std::uint64_t numSlots, const char* name = "vlx-Ab3xYz")
    {
        RingLayout layout = chooseRingLayout(frameBytes, numSlots, MaxRingBytes).value();
        layout.name = name;
        return layout;
    }

    static std::shared_ptr<FrameRing> makeRing(std::size_t frameBytes, std::uint64_t numSlots)
    {
        std::string problem;
        auto ring = FrameRing::make(makeLayout(frameBytes, numSlots), 0600, ::getegid(), problem);
        EXPECT_EQ(problem, "");
        return ring;
    }
};

TEST_F(FrameRingTest, ParsesWhatItProducesAndRefusesEverythingElse)
{
    const RingHeader header{{"vlx-Ab3xYz.12", 4, 8192}, 0x41414141, {1, 2, 3}};
    const Buffer bytes = produceRingHeader(header);
    const auto parsed = parseRingHeader(bytes);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->layout, header.layout);
    EXPECT_EQ(parsed->fourcc, header.fourcc);
    EXPECT_EQ(parsed->codecHeader, header.codecHeader);
    for (std::size_t size = 0; size < bytes.size() - header.codecHeader.size(); ++size)
        EXPECT_FALSE(parseRingHeader(ByteView(bytes.data(), size))) << size;

    const RingLayout refused[] = {
        {"vlx-Ab3xYz", 1, 8192},       {"vlx-Ab3xYz", 65537, 8192},
        {"vlx-Ab3xYz", 4, 64},         {"vlx-Ab3xYz", 4, 8191},
        {"vlx-Ab3xYz", 2, NearHalf},   {"vlx-Ab3xYz", 2, MaxRingBytes / 2 + 64},
        {"vlx-Ab3xY", 4, 8192},        {"vlx-Ab3xYz.", 4, 8192},
        {"vlx-Ab3xYz.1x", 4, 8192},    {"vlx-../../e", 4, 8192},
        {"vlx-Ab3xYz/../..", 4, 8192}, {"vlx-Ab3xYz.1234567890", 4, 8192},
        {"VlxSender-Ab3xYz", 4, 8192}, {"", 4, 8192},
    };
    for (const RingLayout& layout : refused)
        EXPECT_FALSE(parseRingHeader(produceRingHeader({layout, 1})))
            << layout.name << " " << layout.numSlots << " " << layout.slotBytes;
    EXPECT_FALSE(parseRingHeader(produceRingHeader({header.layout, RingFourcc})))
        << "a ring in a ring";

    Buffer payload;
    const RingPlace place{7, 1, 2, 3};
    writeRingPlace(place, payload, 0);
    EXPECT_EQ(parseRingPlace(payload), place);
    payload.pop_back();
    EXPECT_FALSE(parseRingPlace(payload));
    writeRingPlace({7, 1, 2, 0}, payload, 0);
    EXPECT_FALSE(parseRingPlace(payload)) << "no generation";
}

TEST_F(FrameRingTest, ChoosesSlotsThatHaveRoom)
{
    const std::tuple<std::size_t, std::uint64_t, std::uint64_t, std::uint32_t> rows[] = {
        {0, 4, 64 << 20, 4},
        {4096 - 64, 10, 40960, 10},
        {4096 - 63, 10, 40960, 5},
        {3'110'400, 10, 64 << 20, 10},
        {32 << 20, 4, 64 << 20, 0},
        {16 << 20, 4, 64 << 20, 3},
        {1, 1'000'000, MaxRingBytes, 65536},
        {std::numeric_limits<std::size_t>::max(), 4, Huge, 0},
        {MaxRingBytes, 4, Huge, 0}};
    for (const auto& [frameBytes, numFrames, maxBytes, numSlots] : rows) // no slots: no ring
    {
        const auto layout = chooseRingLayout(frameBytes, numFrames, maxBytes);
        EXPECT_EQ(layout ? layout->numSlots : 0, numSlots) << frameBytes;
        EXPECT_TRUE(!layout || getRingCapacity(*layout) >= frameBytes);
    }
}

TEST_F(FrameRingTest, ReaderGetsExactlyTheFramesThatAreNotOverwritten)
{
    constexpr std::size_t NumSlots = 4;
    constexpr std::size_t Size = 5000;
    const auto ring = makeRing(Size, NumSlots);
    RingReader reader;
    ASSERT_EQ(reader.open(ring->getLayout(), ::geteuid()), "");
    std::vector<RingPlace> places;
    Buffer bytes;
    for (std::size_t number = 1; number <= 10; ++number)
        places.push_back(ring->publish(makeFrame(Size, number)));
    for (std::size_t number = 1; number <= 10; ++number)
    {
        ASSERT_EQ(reader.read(places[number - 1], bytes), number > 10 - NumSlots) << number;
        if (number > 10 - NumSlots)
        {
            EXPECT_EQ(bytes, makeFrame(Size, number));
        }
    }
    const RingPlace empty = ring->publish({});
    EXPECT_TRUE(reader.read(empty, bytes));
    EXPECT_EQ(bytes, Buffer());
    ring->remove();
    EXPECT_TRUE(reader.read(empty, bytes)) << "an open ring outlives its name";
}

TEST_F(FrameRingTest, SlotsAreFilledInPlaceAndHalfOfThemServeCopies)
{
    constexpr std::size_t Size = 5000;
    auto ring = makeRing(Size, 4);
    RingReader reader;
    ASSERT_EQ(reader.open(ring->getLayout(), ::geteuid()), "");
    Buffer bytes;

    auto first = ring->takeSlot();
    const auto second = ring->takeSlot();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first.get()) % (2 << 20), 64U) << "no huge pages";
    EXPECT_FALSE(ring->takeSlot());
    std::fill_n(first.get(), Size, std::uint8_t{1});
    std::fill_n(second.get(), Size, std::uint8_t{2});
    const RingPlace whole = ring->publish({first.get(), Size});
    const RingPlace part = ring->publish({second.get() + 1000, 100});
    EXPECT_EQ(part.offset, 1000U);
    EXPECT_EQ(ring->publish({first.get(), Size}), whole) << "sent twice";
    RingPlace oldest;
    for (std::size_t number = 3; number < 20; ++number)
    {
        const RingPlace copied = oldest = ring->publish(makeFrame(Size, number));
        EXPECT_TRUE(reader.read(copied, bytes) && bytes == makeFrame(Size, number)) << number;
        EXPECT_TRUE(reader.read(whole, bytes) && bytes == makeFrame(Size, 1)) << number;
        EXPECT_TRUE(reader.read(part, bytes) && bytes == makeFrame(100, 2)) << number;
    }
    const RingPlace newest = ring->publish(makeFrame(Size, 20));
    first.reset();
    EXPECT_TRUE(reader.read(whole, bytes)) << "until its slot is used again";
    EXPECT_TRUE(reader.read(oldest, bytes));
    first = ring->takeSlot();
    ASSERT_TRUE(first);
    EXPECT_FALSE(reader.read(oldest, bytes)) << "it is being filled";
    EXPECT_TRUE(reader.read(newest, bytes));
    const RingPlace beyond = ring->publish({first.get(), getRingCapacity(ring->getLayout())});
    EXPECT_EQ(beyond.offset, 0U);

    ring->remove();
    ring.reset();
    std::fill_n(second.get(), Size, std::uint8_t{9}); // memory outlives its producer
}

TEST_F(FrameRingTest, PlacesOutsideAreLost)
{
    const auto ring = makeRing(5000, 4);
    RingReader reader;
    ASSERT_EQ(reader.open(ring->getLayout(), ::geteuid()), "");
    const std::uint64_t capacity = getRingCapacity(ring->getLayout());
    Buffer bytes;
    const RingPlace good = ring->publish(makeFrame(capacity, 7));
    EXPECT_TRUE(reader.read(good, bytes));
    // A slot behind the end stays out of reach, even if the file grows.
    const Descriptor file(::open(ring->getLayout().getPath().c_str(), O_WRONLY | O_CLOEXEC));
    const auto end = static_cast<off_t>(ring->getLayout().getFileBytes());
    ASSERT_EQ(::pwrite(file.get(), "\1\0\0\0\0\0\0\0\0", 9, end), 9);
    ASSERT_EQ(::ftruncate(file.get(), 2 * end), 0);
    const RingPlace lost[] = {
        {4, 0, 1, 1},
        {std::numeric_limits<std::uint32_t>::max(), 0, 1, 1},
        {good.slot, 1, capacity, 1},
        {good.slot, capacity + 1, 0, 1},
        {good.slot, Huge, 2, 1},
        {good.slot, 0, Huge, 1},
        {good.slot, 1, Huge, 1},
        {good.slot, 64, NearHalf - 1, 1},
        {good.slot, NearHalf, NearHalf, 1},
        {good.slot, 0, 1, 2},
        {good.slot, 0, 1, Huge},
        {(good.slot + 1) % 4, 0, 1, 1},
    };
    for (const RingPlace& place : lost)
        EXPECT_FALSE(reader.read(place, bytes))
            << place.slot << " " << place.offset << " " << place.length;
    EXPECT_LE(bytes.capacity(), 2 * capacity) << "nothing is allocated for a lost frame";
    ring->remove();
    EXPECT_FALSE(RingReader().read(good, bytes)) << "without an open ring";
}

TEST_F(FrameRingTest, ReaderRefusesFilesThatAreNotTheSenders)
{
    const std::string file = makeLayout(5000, 4).getPath();
    const char* const path = file.c_str();
    const auto size = static_cast<off_t>(makeLayout(5000, 4).getFileBytes());
    Descriptor lease;
    const auto hold = [&]
    {
        std::signal(SIGIO, SIG_IGN);
        lease = Descriptor(::open(path, O_CREAT | O_RDWR | O_CLOEXEC, 0600));
        return ::fcntl(lease.get(), F_SETLEASE, F_WRLCK);
    };
    const std::tuple<const char*, bool, std::function<int()>, const char*> rows[] = {
        {"truncated", false, [&] { return ::truncate(path, size - 1); }, "announced size"},
        {"grown", false, [&] { return ::truncate(path, size + 1); }, "announced size"},
        {"sparse", false, [&] { return ::truncate(path, 0) + ::truncate(path, size); },
         "announced size"},
        {"unlinked", true, [] { return 0; }, "the file is missing"},
        {"another user's", false, [&] { return ::chown(path, Nobody, Nobody); },
         "belongs to user 65534"},
        {"a link", true, [&] { return ::symlink("/etc/passwd", path); }, "Too many levels"},
        {"a directory", true, [&] { return ::mkdir(path, 0700); }, "not a regular file"},
        {"a pipe", true, [&] { return ::mkfifo(path, 0600); }, "not a regular file"},
        {"leased", true, hold, "Resource temporarily unavailable"}};
    for (const auto& [name, isReplaced, change, problem] : rows)
    {
        SCOPED_TRACE(name);
        const auto ring = makeRing(5000, 4);
        ASSERT_TRUE(ring);
        ASSERT_TRUE(!isReplaced || ::unlink(path) == 0);
        ASSERT_EQ(change(), 0);
        RingReader reader;
        EXPECT_THAT(reader.open(ring->getLayout(), ::geteuid()), HasSubstr(problem));
        ::remove(path);
        lease = Descriptor();
    }

    const auto ring = makeRing(5000, 4);
    RingReader reader;
    // An open ring that changes loses frames, and nothing else.
    ASSERT_EQ(reader.open(ring->getLayout(), ::geteuid()), "");
    Buffer bytes;
    const RingPlace place = ring->publish(makeFrame(5000, 1));
    EXPECT_TRUE(reader.read(place, bytes));
    ASSERT_EQ(::truncate(path, 64 + 100), 0);
    EXPECT_FALSE(reader.read(place, bytes)) << "ends within the frame";
    ASSERT_EQ(::truncate(path, 0), 0);
    EXPECT_FALSE(reader.read(place, bytes)) << "is empty";
    ASSERT_EQ(::truncate(path, size), 0);
    EXPECT_FALSE(reader.read(place, bytes)) << "has a hole";
    ring->remove();
}

TEST_F(FrameRingTest, NoFrameIsEverMixed)
{
    constexpr std::size_t Size = 50'000;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr std::size_t NumFrames = 500;
#else
    constexpr std::size_t NumFrames = 6000;
#endif
    const auto ring = makeRing(Size, 2);
    std::atomic<std::uint64_t> last = 0; // slot and generation of the newest frame
    std::atomic<bool> isDone = false;
    std::thread writer(
        [&]
        {
            for (std::size_t number = 1; number <= NumFrames; ++number)
            {
                const RingPlace place = ring->publish(makeFrame(Size, number));
                last = place.generation << 1 | place.slot;
            }
            isDone = true;
        });
    RingReader reader;
    EXPECT_EQ(reader.open(ring->getLayout(), ::geteuid()), "");
    Buffer bytes;
    std::size_t numRead = 0;
    std::size_t numMixed = 0;
    while (last == 0)
        std::this_thread::yield();
    for (bool isLast = false; !isLast;)
    {
        isLast = isDone; // then the newest frame stays
        const std::uint64_t newest = last;
        const RingPlace place{static_cast<std::uint32_t>(newest & 1), 0, Size, newest >> 1};
        if (!reader.read(place, bytes))
            continue;
        ++numRead;
        numMixed += bytes != makeFrame(Size, place.generation) ? 1U : 0U;
    }
    writer.join();
    ring->remove();
    EXPECT_GT(numRead, 0U);
    EXPECT_EQ(numMixed, 0U);
}

TEST_F(FrameRingTest, WithoutRoomThereIsNoRingAndNoSignal)
{
    const RingLayout layout = makeLayout(3 << 20, 4);
    const auto getProblem = [&]
    {
        std::string problem;
        EXPECT_EQ(FrameRing::make(layout, 0600, ::getegid(), problem), nullptr);
        EXPECT_NE(::access(layout.getPath().c_str(), F_OK), 0);
        return problem;
    };
    {
        const ResourceLimit limit(RLIMIT_FSIZE, 1 << 20);
        EXPECT_THAT(getProblem(), HasSubstr("File too large"));
    }
    {
        const ResourceLimit limit(RLIMIT_NOFILE, 0);
        EXPECT_THAT(getProblem(), HasSubstr("Too many open files"));
    }
    ASSERT_EQ(::symlink("/tmp/vlx-target", layout.getPath().c_str()), 0);
    std::string problem;
    EXPECT_EQ(FrameRing::make(layout, 0600, ::getegid(), problem), nullptr);
    EXPECT_THAT(problem, HasSubstr("File exists"));
    EXPECT_EQ(::unlink(layout.getPath().c_str()), 0) << "what is another's stays";

    ASSERT_TRUE(mountMemory("size=8m,mode=1777"));
    EXPECT_THAT(getProblem(), HasSubstr("No space left"));
    ASSERT_TRUE(mountMemory("mode=0777"));
    EXPECT_THAT(getProblem(), HasSubstr("no sticky bit"));
}

TEST_F(FrameRingTest, OnlyRingsOfTheDeadAreRemoved)
{
    const auto ring = makeRing(5000, 4);
    const RingLayout dead = makeLayout(5000, 4, "vlx-Ab3xYz.2");
    ASSERT_TRUE(runInFork(
        [&]
        {
            std::string problem;
            return FrameRing::make(dead, 0600, ::getegid(), problem) != nullptr;
        }));
    const auto makeEmpty = [](const char* name)
    {
        const std::string path = RingLayout{name}.getPath();
        return Descriptor(::open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 01600));
    };
    std::ofstream("/dev/shm/vlx-camera") << "another program's";
    makeEmpty("vlx-Ab3xYz.3"); // is being made
    const Descriptor locked = makeEmpty("vlx-Ab3xYz.4");
    ASSERT_EQ(::flock(locked.get(), LOCK_EX | LOCK_NB), 0);
    makeEmpty("vlx-others.txt");
    EXPECT_EQ(removeDeadRings(60).size(), 0U) << "all are young";
    EXPECT_EQ(removeDeadRings().size(), 1U);
    EXPECT_THAT(
        listMemory(),
        ElementsAre("vlx-Ab3xYz", "vlx-Ab3xYz.3", "vlx-Ab3xYz.4", "vlx-camera", "vlx-others.txt"));
    EXPECT_TRUE(ring->isLinked());
    for (const auto minAgeSeconds : {std::optional<std::int64_t>(60), {}})
    {
        SCOPED_TRACE(minAgeSeconds ? "by age" : "by the next producer");
        makeEmpty("vlx-Ab3xYz.3");
        constexpr timespec LongAgo[2] = {};
        for (const std::string& name : listMemory())
            ::utimensat(AT_FDCWD, RingLayout{name}.getPath().c_str(), LongAgo, 0);
        const auto removed = removeDeadRings(minAgeSeconds);
        ASSERT_EQ(removed.size(), 1U);
        EXPECT_EQ(removed[0].path, "/dev/shm/vlx-Ab3xYz.3");
        EXPECT_THAT(
            listMemory(),
            ElementsAre("vlx-Ab3xYz", "vlx-Ab3xYz.4", "vlx-camera", "vlx-others.txt"));
    }
    for (const char* const name : {"vlx-Ab3xYz.4", "vlx-camera", "vlx-others.txt"})
        ::unlink(RingLayout{name}.getPath().c_str());
    ring->remove();
}

} // unnamed namespace

} // namespace vlx::kit
