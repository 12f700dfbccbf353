// A sink for HTTP and file channels.
#pragma once

#include "talvo/testing/channel_log.h"
#include "tests/support/test.h"

// Records a channel's upcalls, and fails the test if one breaks the contract.
class CTestChannelSink : public CCmChannelLog {
public:
    ~CTestChannelSink() override { EXPECT_EQ("", GetFaults()); }
};
