#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace vlx::tool
{

/// Writes help that fits 80 columns and breaks between words only.
class HelpFormatter : public CLI::Formatter
{
public:
    std::string make_description(const CLI::App* app) const override;
    std::string make_footer(const CLI::App* app) const override;
    std::string make_subcommand(const CLI::App* command) const override;
    std::string make_option(const CLI::Option* option, bool isPositional) const override;
};

} // namespace vlx::tool
