#include <gtest/gtest.h>
#include "lumamark/lumamark.h"
TEST(Api, Version) { EXPECT_STREQ(lumamark_version(), "2.1.3"); }
