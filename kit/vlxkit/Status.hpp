#pragma once

/// The result of an operation that can fail.

#include <string>
#include <utility>

#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// Why an operation failed, for a program to act on.
enum class ErrorCode
{
    /// Success.
    Ok,
    /// The stream's name is empty or longer than 107 bytes.
    NameInvalid,
    /// Another sender holds the name. Retry later.
    NameTaken,
    /// An option, a format or media data is not valid.
    InvalidArgument,
    /// The base directory is missing, is not a directory, or its path is too long.
    NoDirectory,
    /// Another user controls the base directory, or has replaced files of the stream.
    DirectoryNotTrusted,
    /// A producer's user may not write to the base directory, or the user may not use it at all, or
    /// may not use real-time scheduling.
    NotPermitted,
    /// No descriptor, thread or memory is left. Retry later.
    OutOfResources,
    /// The stream is open already.
    AlreadyOpen,
    /// The stream is not open.
    NotOpen,
    /// Producer::stop() was called: every later operation fails.
    Stopped,
    /// Producer::interrupt(true) was called: operations succeed again after interrupt(false).
    Interrupted,
    /// The timeout has expired.
    TimedOut,
    /// Anything else; see the text.
    Failed,
};

/// Returns the name of an error code, such as "name taken".
///
/// @return a static string
VLX_API const char* toString(ErrorCode code);

/// Result of an operation: success, or why it failed. Cast it to void to ignore it.
class [[nodiscard]] Status
{
public:
    /// Success. Allocates nothing.
    Status() = default;

    /// A failure.
    ///
    /// @param code  any but Ok
    /// @param text  one line, without a full stop
    Status(ErrorCode code, std::string text) : m_code(code), m_text(std::move(text)) {}

    /// @return true on success
    explicit operator bool() const noexcept
    {
        return m_code == ErrorCode::Ok;
    }

    /// @return Ok on success
    ErrorCode getCode() const noexcept
    {
        return m_code;
    }

    /// @return one line for a user: what failed and why, with the system's own text; complete
    ///         without the library's log. Empty on success
    const std::string& getText() const noexcept
    {
        return m_text;
    }

private:
    ErrorCode m_code = ErrorCode::Ok;
    std::string m_text;
};

} // namespace vlx::kit
