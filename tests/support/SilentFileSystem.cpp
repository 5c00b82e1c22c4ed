#include "support/SilentFileSystem.hpp"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <linux/fuse.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace vlx::testing
{

namespace
{

constexpr std::uint64_t FileNode = 2;
constexpr std::uint64_t LongSeconds = 3600;

void reply(int fd, const fuse_in_header& request, int error, void* body, std::size_t size)
{
    fuse_out_header header{};
    header.len = static_cast<std::uint32_t>(sizeof(header) + size);
    header.error = -error;
    header.unique = request.unique;
    const iovec parts[] = {{&header, sizeof(header)}, {body, size}};
    [[maybe_unused]] const ssize_t written = ::writev(fd, parts, size > 0 ? 2 : 1);
}

fuse_attr describe(std::uint64_t node)
{
    fuse_attr attributes{};
    attributes.ino = node;
    attributes.mode = node == FileNode ? S_IFREG | 0666 : S_IFDIR | 0777;
    attributes.nlink = 1;
    return attributes;
}

void answer(int fd, const fuse_in_header& request)
{
    fuse_init_out init{};
    fuse_entry_out entry{};
    fuse_attr_out attributes{};
    fuse_open_out open{};
    switch (request.opcode)
    {
    case FUSE_INIT:
        init.major = FUSE_KERNEL_VERSION;
        init.minor = FUSE_KERNEL_MINOR_VERSION;
        init.max_write = 4096;
        return reply(fd, request, 0, &init, sizeof(init));
    case FUSE_LOOKUP:
        entry.nodeid = FileNode;
        entry.entry_valid = LongSeconds;
        entry.attr_valid = LongSeconds;
        entry.attr = describe(FileNode);
        return reply(fd, request, 0, &entry, sizeof(entry));
    case FUSE_GETATTR:
        attributes.attr_valid = LongSeconds;
        attributes.attr = describe(request.nodeid);
        return reply(fd, request, 0, &attributes, sizeof(attributes));
    case FUSE_OPEN:
        return reply(fd, request, 0, &open, sizeof(open));
    case FUSE_FLUSH:
    case FUSE_RELEASE:
    case FUSE_FORGET:
    case FUSE_BATCH_FORGET:
    case FUSE_INTERRUPT:
        return;
    default:
        return reply(fd, request, ENOSYS, nullptr, 0);
    }
}

} // unnamed namespace

void serveSilentFileSystem(const std::string& directory, int readyFD)
{
    const int fd = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const std::string options =
        "fd=" + std::to_string(fd) + ",rootmode=40000,user_id=65534,group_id=65534";
    if (fd < 0 || ::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("silent", directory.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) != 0 ||
        ::write(readyFD, "1", 1) != 1)
        return;

    alignas(fuse_in_header) std::array<unsigned char, FUSE_MIN_READ_BUFFER * 4> request;
    while (::read(fd, request.data(), request.size()) >=
           static_cast<ssize_t>(sizeof(fuse_in_header)))
    {
        fuse_in_header header{};
        std::memcpy(&header, request.data(), sizeof(header));
        answer(fd, header);
    }
}

} // namespace vlx::testing
