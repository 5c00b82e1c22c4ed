#include "FrameRing.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vlxkit/Text.hpp>

#include "BaseDirectoryTrust.hpp"
#include "base/ErrorText.hpp"
#include "base/LittleEndian.hpp"
#include "base/SenderDirectory.hpp"

namespace vlx::kit
{

namespace
{

// The generation, in the machine's byte order; the rest is alignment for vector instructions.
constexpr std::uint64_t SlotHeadBytes = 64;
constexpr std::uint64_t PageBytes = 4096;
constexpr std::uint64_t HugePageBytes = 2 << 20;

// MADV_COLLAPSE and MADV_POPULATE_WRITE, which older headers lack; older kernels refuse them.
constexpr int AdviceCollapse = 25;
constexpr int AdvicePopulateWrite = 23;

// The sticky bit, which no other program sets on files: only what has it is removed as a dead ring.
constexpr mode_t RingMark = S_ISVTX;

constexpr std::uint64_t MinSlots = 2;
constexpr std::uint64_t MaxSlots = 65536;

constexpr const char* RingDirectory = "/dev/shm/";
constexpr std::string_view NamePrefix = "vlx-";
constexpr std::size_t NumNameCharacters = 6;
constexpr std::size_t MaxNumberDigits = 9;

// A signal may end a step of an allocation; then only that step is repeated.
constexpr std::uint64_t AllocationStep = 1 << 20;

constexpr std::uint64_t BytesPerBlock = 512; // of a file's status

// A ring is made without its lock, which comes next: its producer may be held up in between.
constexpr std::int64_t MinEmptyAgeSeconds = 60;

/// @return whether makeRingName() makes such names
bool isRingName(std::string_view name)
{
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (!name.starts_with(NamePrefix))
        return false;
    const std::string_view characters = name.substr(NamePrefix.size(), NumNameCharacters);
    const std::string_view number = name.substr(NamePrefix.size() + characters.size());
    return isSenderDirectoryName(SenderDirectoryPrefix + std::string(characters)) &&
           (number.empty() ||
            (number.starts_with('.') && number.size() > 1 && number.size() <= 1 + MaxNumberDigits &&
             std::ranges::all_of(number.substr(1), isDigit)));
}

bool isValid(const RingLayout& layout)
{
    return isRingName(layout.name) && layout.numSlots >= MinSlots && layout.numSlots <= MaxSlots &&
           layout.slotBytes > SlotHeadBytes && layout.slotBytes % SlotHeadBytes == 0 &&
           layout.slotBytes <= MaxRingBytes / layout.numSlots;
}

/// @return 0 or an error number
int toError(int result)
{
    return result == 0 ? 0 : errno;
}

/// Orders what was accessed before against what is accessed afterwards. ThreadSanitizer has no
/// fences, but does not look into files either.
void orderMemory()
{
#pragma GCC diagnostic push
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wtsan"
#endif
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
#pragma GCC diagnostic pop
}

std::string describeOpenError(const RingLayout& layout, int error)
{
    const std::string start = "cannot open its frames in " + quote(layout.getPath()) + ": ";
    if (error == ENOENT)
        return start +
               "the file is missing, or the sender runs in a container with its own /dev/shm";
    if (error == EACCES)
        return start + "this user may not read it: give the sender --socket-mode group or all";
    return start + describeError(error);
}

} // unnamed namespace

std::uint64_t getRingCapacity(const RingLayout& layout)
{
    return layout.slotBytes - SlotHeadBytes;
}

std::string makeRingName(const std::string& sender, unsigned number)
{
    const std::string directory = findSenderDirectoryName(sender);
    const std::string_view prefix = SenderDirectoryPrefix;
    return std::string(NamePrefix) + directory.substr(std::min(prefix.size(), directory.size())) +
           (number == 1 ? "" : "." + std::to_string(number));
}

std::optional<RingLayout>
chooseRingLayout(std::size_t frameBytes, std::uint64_t numFrames, std::uint64_t maxBytes)
{
    const std::uint64_t limit = std::min(maxBytes, MaxRingBytes);
    if (frameBytes > limit)
        return std::nullopt;
    const std::uint64_t slotBytes =
        (frameBytes + SlotHeadBytes + PageBytes - 1) / PageBytes * PageBytes;
    const std::uint64_t numSlots = std::min({numFrames, limit / slotBytes, MaxSlots});
    if (numSlots < MinSlots)
        return std::nullopt;
    return RingLayout{{}, static_cast<std::uint32_t>(numSlots), slotBytes};
}

Buffer produceRingHeader(const RingHeader& header)
{
    Buffer bytes;
    writeLittleEndian(bytes, 0, header.fourcc);
    writeLittleEndian(bytes, 4, header.layout.numSlots);
    writeLittleEndian(bytes, 8, header.layout.slotBytes);
    bytes.insert(bytes.end(), header.layout.name.begin(), header.layout.name.end());
    bytes.push_back(0);
    bytes.insert(bytes.end(), header.codecHeader.begin(), header.codecHeader.end());
    return bytes;
}

std::optional<RingHeader> parseRingHeader(const ByteView& bytes)
{
    ByteCursor cursor(bytes);
    const auto fourcc = cursor.read<std::uint32_t>();
    const auto numSlots = cursor.read<std::uint32_t>();
    const auto slotBytes = cursor.read<std::uint64_t>();
    auto name = cursor.readTerminatedString();
    if (!name)
        return std::nullopt;
    RingHeader header{{std::move(*name), *numSlots, *slotBytes}, *fourcc};
    if (!isValid(header.layout) || header.fourcc == RingFourcc)
        return std::nullopt;
    const ByteView rest = cursor.getRest();
    header.codecHeader.assign(rest.begin(), rest.end());
    return header;
}

void writeRingPlace(const RingPlace& place, Buffer& packet, std::size_t offset)
{
    writeLittleEndian(packet, offset, place.slot);
    writeLittleEndian(packet, offset + 4, place.offset);
    writeLittleEndian(packet, offset + 12, place.length);
    writeLittleEndian(packet, offset + 20, place.generation);
}

std::optional<RingPlace> parseRingPlace(const ByteView& payload)
{
    ByteCursor cursor(payload);
    const auto slot = cursor.read<std::uint32_t>();
    const auto offset = cursor.read<std::uint64_t>();
    const auto length = cursor.read<std::uint64_t>();
    const auto generation = cursor.read<std::uint64_t>();
    if (!generation || *generation == 0)
        return std::nullopt;
    return RingPlace{*slot, *offset, *length, *generation};
}

std::shared_ptr<FrameRing>
FrameRing::make(const RingLayout& layout, mode_t mode, gid_t group, std::string& problem)
{
    struct stat status = {};
    if (::stat(RingDirectory, &status) != 0)
        problem = "cannot be used: " + describeError(errno);
    else
        problem = findDistrust(status);
    if (!problem.empty())
    {
        problem = RingDirectory + (" " + problem);
        return nullptr;
    }
    std::shared_ptr<FrameRing> ring(new FrameRing(layout));
    if (const int error = ring->prepare(mode, group))
    {
        problem = "cannot allocate " + std::to_string(layout.getFileBytes()) + " bytes in " +
                  quote(layout.getPath()) + ": " + describeError(error);
        ring->remove();
        return nullptr;
    }
    return ring;
}

int FrameRing::prepare(mode_t mode, gid_t group)
{
    if (const int error = openFile(mode, group))
        return error;
    if (const int error = map())
        return error;
    m_isHeld.resize(m_layout.numSlots);
    for (std::uint32_t slot = 0; slot < m_layout.numSlots; ++slot)
        m_free.push(std::uint32_t(slot));
    return toError(::fchmod(m_file.get(), RingMark | mode));
}

/// The file is empty until it is locked.
int FrameRing::openFile(mode_t mode, gid_t group)
{
    const std::string path = m_layout.getPath();
    m_file = OwnedDescriptor(::open(
        path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
        RingMark | S_IRUSR | S_IWUSR));
    if (m_file.get() < 0)
        return errno;
    m_process = ::getpid();
    ::flock(m_file.get(), LOCK_EX | LOCK_NB);
    const bool isGroups = (mode & S_IRGRP) != 0 && group != ::getegid();
    if (isGroups && ::fchown(m_file.get(), static_cast<uid_t>(-1), group) != 0)
        return errno;
    return allocate();
}

/// Takes all memory now: a write to a page without memory would end the process.
int FrameRing::allocate() const
{
    const std::uint64_t size = m_layout.getFileBytes();
    rlimit limit{};
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && size > limit.rlim_cur)
        return EFBIG; // otherwise the system sends a signal that ends the process
    for (std::uint64_t offset = 0; offset < size;)
    {
        const std::uint64_t step = std::min(size - offset, AllocationStep);
        const int error =
            ::posix_fallocate(m_file.get(), static_cast<off_t>(offset), static_cast<off_t>(step));
        if (error != 0 && error != EINTR)
            return error;
        offset += error == 0 ? step : 0;
    }
    return 0;
}

/// Maps the file, in huge pages if the system has them: readers then copy frames of a mebibyte in
/// half the time, and mapping takes no longer.
int FrameRing::map()
{
    const std::size_t size = m_layout.getFileBytes();
    void* const reserved = ::mmap(
        nullptr, size + HugePageBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
        -1, // cppcheck-suppress invalidFunctionArg  // anonymous
        0);
    if (reserved == MAP_FAILED)
        return errno;
    m_reserved = reserved;
    const std::uint64_t excess = reinterpret_cast<std::uintptr_t>(reserved) % HugePageBytes;
    std::uint8_t* const aligned = static_cast<std::uint8_t*>(reserved) + HugePageBytes - excess;
    if (::mmap(aligned, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, m_file.get(), 0) ==
        MAP_FAILED)
        return errno;
    m_memory = aligned;
    ::madvise(m_memory, size, AdviceCollapse);
    ::madvise(m_memory, size, AdvicePopulateWrite);
    return 0;
}

FrameRing::~FrameRing()
{
    if (m_reserved != nullptr)
        ::munmap(m_reserved, m_layout.getFileBytes() + HugePageBytes);
}

void FrameRing::remove()
{
    if (std::exchange(m_process, 0) == ::getpid() && isLinked())
        ::unlink(m_layout.getPath().c_str());
}

bool FrameRing::isLinked() const
{
    struct stat status = {};
    return ::fstat(m_file.get(), &status) == 0 && status.st_nlink != 0;
}

std::shared_ptr<std::uint8_t[]> FrameRing::takeSlot()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_numHeld >= m_layout.numSlots / 2)
        return nullptr;
    const std::uint32_t slot = m_free.pop();
    ++m_numHeld;
    m_isHeld[slot] = true;
    setGeneration(slot, 0);
    return {getSlot(slot) + SlotHeadBytes, [self = shared_from_this(), slot](std::uint8_t*) {
                self->giveBack(slot);
            }};
}

void FrameRing::giveBack(std::uint32_t slot)
{
    if (isForkedCopy(m_owner)) // its lock may stay locked
        return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_numHeld;
    m_isHeld[slot] = false;
    m_free.push(std::uint32_t(slot));
}

RingPlace FrameRing::publish(const ByteView& bytes)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    std::optional<RingPlace> place = findHeld(bytes);
    if (!place)
    {
        place = {m_free.pop(), 0, bytes.size()};
        lock.unlock(); // no other thread has the slot
        setGeneration(place->slot, 0);
        std::copy(bytes.begin(), bytes.end(), getSlot(place->slot) + SlotHeadBytes);
        lock.lock();
        m_free.push(std::uint32_t(place->slot));
    }
    if (getGeneration(place->slot) == 0)
        setGeneration(place->slot, ++m_lastGeneration);
    place->generation = getGeneration(place->slot);
    return *place;
}

std::optional<RingPlace> FrameRing::findHeld(const ByteView& bytes) const
{
    const auto address = reinterpret_cast<std::uintptr_t>(bytes.data());
    const auto begin = reinterpret_cast<std::uintptr_t>(m_memory);
    if (address < begin || address - begin >= m_layout.getFileBytes())
        return std::nullopt;
    const auto slot = static_cast<std::uint32_t>((address - begin) / m_layout.slotBytes);
    const std::uint64_t offset = (address - begin) % m_layout.slotBytes;
    if (!m_isHeld[slot] || offset < SlotHeadBytes || bytes.size() > m_layout.slotBytes - offset)
        return std::nullopt;
    return RingPlace{slot, offset - SlotHeadBytes, bytes.size()};
}

std::uint8_t* FrameRing::getSlot(std::uint32_t slot) const
{
    return m_memory + slot * m_layout.slotBytes;
}

std::uint64_t FrameRing::getGeneration(std::uint32_t slot) const
{
    return std::atomic_ref(*reinterpret_cast<std::uint64_t*>(getSlot(slot)))
        .load(std::memory_order_relaxed);
}

/// A reader that sees any byte of a frame also sees what was set before it was written.
void FrameRing::setGeneration(std::uint32_t slot, std::uint64_t generation)
{
    std::atomic_ref(*reinterpret_cast<std::uint64_t*>(getSlot(slot)))
        .store(generation, std::memory_order_release);
    orderMemory();
}

std::string RingReader::open(const RingLayout& layout, uid_t sender)
{
    if (m_file.get() >= 0 && layout == m_layout)
        return {};
    close();
    const std::string path = layout.getPath();
    // Without waiting: for a writer of a pipe, or for the holder of a lease.
    OwnedDescriptor file(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file.get() < 0)
        return describeOpenError(layout, errno);
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0)
        return describeOpenError(layout, errno);
    const std::string start = "its frames in " + quote(path) + " cannot be trusted: the file ";
    if (!S_ISREG(status.st_mode))
        return start + "is not a regular file";
    if (status.st_uid != sender)
        return start + "belongs to user " + std::to_string(status.st_uid) +
               ", the sender is user " + std::to_string(sender);
    // What it claims to hold it must have memory for, so that a reader is not made to allocate.
    if (static_cast<std::uint64_t>(status.st_size) != layout.getFileBytes() ||
        static_cast<std::uint64_t>(status.st_blocks) * BytesPerBlock < layout.getFileBytes())
        return start + "does not have the announced size";
    m_layout = layout;
    m_file = std::move(file);
    return {};
}

void RingReader::close()
{
    m_file = OwnedDescriptor();
    m_layout = {};
}

bool RingReader::read(const RingPlace& place, Buffer& bytes) const
{
    if (m_file.get() < 0 || place.slot >= m_layout.numSlots ||
        place.offset > getRingCapacity(m_layout) ||
        place.length > getRingCapacity(m_layout) - place.offset)
        return false;
    const std::uint64_t slot = place.slot * m_layout.slotBytes;
    if (!hasGeneration(slot, place.generation))
        return false;
    bytes.resize(place.length);
    return readAt(slot + SlotHeadBytes + place.offset, bytes.data(), bytes.size()) &&
           hasGeneration(slot, place.generation);
}

/// Whatever was read before the call was read before the generation.
bool RingReader::hasGeneration(std::uint64_t slotOffset, std::uint64_t generation) const
{
    orderMemory();
    std::uint64_t present = 0;
    return readAt(slotOffset, &present, sizeof(present)) && present == generation;
}

bool RingReader::readAt(std::uint64_t offset, void* bytes, std::size_t size) const
{
    for (std::size_t done = 0; done < size;)
    {
        const ssize_t count = ::pread(
            m_file.get(), static_cast<std::uint8_t*>(bytes) + done, size - done,
            static_cast<off_t>(offset + done));
        if (count == 0 || (count < 0 && errno != EINTR))
            return false;
        done += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    return true;
}

std::vector<DeadEntry> removeDeadRings(std::optional<std::int64_t> minAgeSeconds)
{
    std::vector<DeadEntry> removed;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(RingDirectory, error))
    {
        const std::string path = entry.path().string();
        struct stat status = {};
        if (!isRingName(entry.path().filename().string()) || ::lstat(path.c_str(), &status) != 0 ||
            !S_ISREG(status.st_mode) || (status.st_mode & RingMark) == 0)
            continue;
        const bool isMine = status.st_uid == ::geteuid();
        const std::int64_t age = std::time(nullptr) - status.st_mtime;
        const bool isDue = minAgeSeconds
                               ? (isMine || ::geteuid() == 0) && age > *minAgeSeconds
                               : isMine && (status.st_size != 0 || age > MinEmptyAgeSeconds);
        const OwnedDescriptor file(
            isDue ? ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC) : -1);
        if (file.get() >= 0 && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0)
            removed.push_back({path, ::unlink(path.c_str()) == 0 ? "" : describeError(errno)});
    }
    return removed;
}

} // namespace vlx::kit
