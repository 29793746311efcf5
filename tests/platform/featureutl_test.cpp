// Feature switches read from the store and their change callbacks.
#include <gtest/gtest.h>

#include <nk/featureutl.h>
#include <nk/setmgmt.h>

#include "temp_dir.h"
#include "wait.h"

namespace {

namespace fu = nk::featureutl;

int nkset(const std::string& args) {
    return nk::test::run_command(std::string(NK_NKSET_BIN) + " " + args);
}

class FeatureTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(nk::setMgmt::init(), 0); }
    void TearDown() override { fu::uninit(); }

    nk::test::TempDir dir_;
    nk::test::ScopedEnv env_{"NK_SETTINGS_DIR", dir_ / "store"};
};

TEST_F(FeatureTest, DescriptorAndCallbacksNeedInit) {
    const auto ignore = [](int) {};
    EXPECT_EQ(fu::get_fd(), -1);
    EXPECT_EQ(fu::read_fd(), -1);
    EXPECT_EQ(fu::set_on_feature_change(1, ignore), -1);
    ASSERT_EQ(fu::init(), 0);
    EXPECT_GE(fu::get_fd(), 0);
    EXPECT_EQ(fu::set_on_feature_change(1, ignore), 0);
    fu::uninit();
    EXPECT_EQ(fu::get_fd(), -1);
}

TEST_F(FeatureTest, ChangeCallsThatFeaturesCallbackOnce) {
    ASSERT_EQ(fu::init(), 0);  // before /features/ids exists
    std::vector<int> calls;
    for (const int feature : {3, 5}) {
        ASSERT_EQ(fu::set_on_feature_change(feature, [&calls](int n) { calls.push_back(n); }), 0);
    }
    // A feature nobody asked about wakes the descriptor but calls nothing.
    const std::pair<const char*, std::vector<int>> steps[] = {
        {"3 1", {3}}, {"7 1", {3}}, {"5 2", {3, 5}}};
    for (const auto& [args, expected] : steps) {
        SCOPED_TRACE(args);
        ASSERT_EQ(nkset(std::string("set /features/ids/") + args), 0);
        ASSERT_TRUE(nk::test::wait_readable(fu::get_fd()));
        EXPECT_EQ(fu::read_fd(), static_cast<int>(expected.size() - calls.size()));
        EXPECT_EQ(calls, expected);
    }
    EXPECT_EQ(fu::get_feature(5), 2);
    EXPECT_EQ(fu::get_feature(4), 0);  // unset means on
}

}  // namespace
