#pragma once

#include <vlxkit/Producer.hpp>

#include "support/VlxTest.hpp"

namespace vlx::testing
{

/// A producer that is open.
class OpenProducer : public kit::Producer
{
public:
    explicit OpenProducer(const kit::ProducerOptions& options) : Producer(options)
    {
        EXPECT_EQ(open(kit::StreamFormat()).getText(), "");
    }
};

} // namespace vlx::testing
