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

/// Prints the log of library and kit, logger "Vellox", on standard error while it lives. Changes no
/// other logger, and its destructor undoes what it changed. For a program that does not configure
/// log4cplus, which otherwise prints two lines of complaint: make one first thing in main(). A
/// program that configures log4cplus itself needs none.
///
/// May be made again and nested: the level of the youngest counts, and each line appears once.
///
/// @thread any; destroy nested ones in reverse order
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
