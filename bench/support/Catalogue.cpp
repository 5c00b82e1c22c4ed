#include "support/Catalogue.hpp"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace vlx::bench
{

const char* const OursId = "vellox";
const char* const RawNanomsgId = "nanomsg-same";
const char* const PollsId = "nanomsg-polls";
const char* const ZmqId = "zmq";
const char* const NngId = "nng";

const std::vector<Path>& allPaths()
{
    static const std::vector<Path> Paths = {
        {OursId, "ours", "vellox", "bell", "pubsub, monotonic system clock, PCM"},
        {RawNanomsgId, "nanomsg, our options", "nanomsg", "same",
         "NN_SNDBUF 1, NN_RCVBUF 1, NN_RCVMAXSIZE -1, NN_DONTWAIT, NN_MSG: the limit of the "
         "design"},
        {PollsId, "nanomsg, our polls", "nanomsg", "polls",
         "as before, and polls of as many descriptors and with the time-out of ours: what waiting "
         "costs"},
        {"nanomsg", "nanomsg", "nanomsg", "", "default buffers; NN_RCVMAXSIZE -1"},
        {ZmqId, "ZeroMQ", "zmq", "", "defaults"},
        {"zmq-tuned", "ZeroMQ tuned", "zmq", "tuned",
         "ZMQ_CONFLATE, ZMQ_IMMEDIATE, high-water marks of 1"},
        {NngId, "nng", "nng", "", "defaults"},
        {"nng-tuned", "nng tuned", "nng", "tuned",
         "NNG_OPT_SENDBUF 1, NNG_OPT_RECVBUF 1, newest preferred (its default)"},
        {"unix", "Unix socket", "unix", "",
         "stream socket, length prefix, blocking writes to each reader: the limit of the kernel"},
        {"gst-shm", "GStreamer shm", "gst_shm", "",
         "appsrc ! shmsink and shmsrc ! appsink, sync=false, queues of one buffer"},
    };
    return Paths;
}

const Path* findPath(const std::string& id)
{
    const auto found = std::ranges::find(allPaths(), id, &Path::id);
    return found == allPaths().end() ? nullptr : &*found;
}

std::string getEndpointProgram(const Path& path)
{
    static const auto Here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    return Here / ("vlx_bench_end_" + path.program);
}

bool isBuilt(const Path& path)
{
    return std::filesystem::exists(getEndpointProgram(path));
}

std::vector<Path> selectPaths(const std::vector<std::string>& ids)
{
    std::vector<Path> selected;
    for (const Path& path : allPaths())
    {
        if (std::ranges::find(ids, path.id) == ids.end())
            continue;
        if (isBuilt(path))
            selected.push_back(path);
        else
            std::fprintf(stderr, "%s is left out: not built\n", path.label.c_str());
    }
    return selected;
}

} // namespace vlx::bench
