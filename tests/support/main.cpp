// Test main shared by every suite: every test runs with fault injection
// disarmed, with no callbacks registered, and is checked for leaked
// descriptors.
#include <gtest/gtest.h>

#include "harness.h"

namespace {

class DescriptorLeakCheck : public testing::EmptyTestEventListener {
    int before_ = 0;
    void OnTestStart(const testing::TestInfo &) override {
        qor_fault_reset();
        for (int slot = 0; slot < QOR_CALLBACK_SLOTS; ++slot)
            QOR_registered_callbacks[slot] = {nullptr, nullptr};
        before_ = qor_test::open_descriptor_count();
    }
    void OnTestEnd(const testing::TestInfo &) override {
        qor_fault_reset();
        const int after = qor_test::open_descriptor_count();
        EXPECT_EQ(before_, after) << "descriptors leaked by this test";
    }
};

}  // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    testing::UnitTest::GetInstance()->listeners().Append(
        new DescriptorLeakCheck);
    return RUN_ALL_TESTS();
}
