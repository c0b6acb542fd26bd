#include <gtest/gtest.h>
#include "harness.h"
TEST(Smoke, Builds) { EXPECT_EQ(QOR_record_qor_error(2052, "x", 2116), 2052); }
