#pragma once

#include <memory>
#include <optional>

#include <vlxkit/Consumer.hpp>

#include "Support.hpp"

namespace vlx::python
{

/// Format of a stream: PCM, or another codec.
struct Content
{
    std::optional<kit::StreamFormat> format;
    py::object pythonFormat = py::none(); ///< None if not PCM
    py::object pythonCodec = py::none();  ///< None for PCM
};

/// One frame. It owns its data; arrays over the data keep it alive.
struct Frame
{
    kit::ReceivedFrame received;
    std::shared_ptr<const Content> content;
};

} // namespace vlx::python
