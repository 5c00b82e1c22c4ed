#pragma once

/// The library's log, for programs that have no logging of their own.

#include <memory>

#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// Least severe message that is printed.
enum class LogLevel
{
    Error,
    Warning,
    Info,
    Debug,
    Trace,
};

/// Prints the log of library and kit on standard error while it lives. For a program that does not
/// configure log4cplus, which otherwise prints two lines of complaint: make one first thing in
/// main(). A program that configures log4cplus itself needs none.
///
/// @thread construct before and destroy after everything that logs; one at a time
class Logging
{
public:
    /// Sets up the log.
    /// @param level  of the least severe message that is printed
    VLX_API explicit Logging(LogLevel level = LogLevel::Warning);
    VLX_API ~Logging();

    Logging(const Logging&) = delete;
    Logging& operator=(const Logging&) = delete;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace vlx::kit
