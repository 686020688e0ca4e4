#include "VersionNumber.h"
#include <gtest/gtest.h>
TEST(VersionNumber, parses) { EXPECT_EQ(VersionNumber::fromString("3.8.0").toString(), "3.8.0"); }
