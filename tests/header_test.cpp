#include <gtest/gtest.h>

#include "zoltlog.h"

TEST(Header, ContextHandlesAreLogHandles) {
    EXPECT_EQ(sizeof(LogMsg), sizeof(LogHandle::contextMsg));
}
