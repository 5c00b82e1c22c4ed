#include <vlxkit/Status.hpp>

namespace vlx::kit
{

const char* toString(ErrorCode code)
{
    switch (code)
    {
    case ErrorCode::Ok:
        return "ok";
    case ErrorCode::NameInvalid:
        return "name invalid";
    case ErrorCode::NameTaken:
        return "name taken";
    case ErrorCode::InvalidArgument:
        return "invalid argument";
    case ErrorCode::NoDirectory:
        return "no directory";
    case ErrorCode::DirectoryNotTrusted:
        return "directory not trusted";
    case ErrorCode::NotPermitted:
        return "not permitted";
    case ErrorCode::OutOfResources:
        return "out of resources";
    case ErrorCode::AlreadyOpen:
        return "already open";
    case ErrorCode::NotOpen:
        return "not open";
    case ErrorCode::Stopped:
        return "stopped";
    case ErrorCode::Interrupted:
        return "interrupted";
    case ErrorCode::TimedOut:
        return "timed out";
    case ErrorCode::Failed:
        return "failed";
    }
    return "unknown";
}

} // namespace vlx::kit
