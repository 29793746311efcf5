// The shared device table in a real LMDB environment, written by more than one process.
#include "nk/devmgmt.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "nk/constants.h"
#include "nk/json.h"
#include "tables.h"
#include "temp_dir.h"
#include "wait.h"

namespace {

using nk::devMgmt::Device;
using nk::sockutl::address;
using nk::sockutl::macaddr;
using nk::test::ScopedEnv;

nk::test::Table cases(const char* name) {
    return {NK_TEST_DATA "/devmgmt.json", name};
}

// A record with every field set, under another id when given.
Device sample(const std::string& id = "id1") {
    Device d;
    for (const auto& row : cases("device"))
        EXPECT_TRUE(d.from_json(row.get(nullptr)));
    d.device_id = id;
    return d;
}

std::optional<Device> load(const std::string& id, bool lock = false) {
    Device d;
    d.device_id = id;
    return d.load_from_shmem(lock, true) ? std::optional(d) : std::nullopt;
}

class DevmgmtTest : public ::testing::Test {
protected:
    void TearDown() override { nk::devMgmt::close_table(); }

    nk::test::TempDir dir_;
    // A directory that does not exist yet: the table creates it.
    ScopedEnv env_{nk::kDevmgmtDirEnv, dir_ / "shm/devmgmt"};
};

TEST_F(DevmgmtTest, EveryFieldRoundTripsThroughJsonAndTheTable) {
    const Device stored = sample();
    const nk::json_ptr json(stored.to_json());
    for (const auto& row : cases("device"))
        EXPECT_TRUE(json_equal(json.get(), row.get(nullptr))) << nk::json_dump_compact(json.get());
    ASSERT_TRUE(stored.write_to_shmem());
    EXPECT_EQ(load("id1"), stored);
    EXPECT_EQ(load("id1", true), stored);

    Device by_local;
    by_local.local_id = "local-id1";
    by_local.display_name = "stale";
    ASSERT_TRUE(by_local.load_from_shmem(false, false));
    EXPECT_EQ(by_local, stored);

    EXPECT_TRUE(stored.delete_shmem());
    EXPECT_FALSE(stored.delete_shmem());
    Device absent = stored;
    EXPECT_FALSE(absent.load_from_shmem(false, true));
    EXPECT_EQ(absent, stored);  // untouched
    EXPECT_TRUE(Device::list().empty());
}

TEST_F(DevmgmtTest, IdsBeyondTheKeyLimitFailCleanly) {
    for (const std::string& id : {std::string(), std::string(512, 'x')}) {
        SCOPED_TRACE(id.size());
        EXPECT_FALSE(sample(id).write_to_shmem());
        EXPECT_FALSE(load(id));
        EXPECT_FALSE(sample(id).delete_shmem());
    }
    const std::string longest(511, 'x');
    ASSERT_TRUE(sample(longest).write_to_shmem());
    EXPECT_EQ(load(longest), sample(longest));
}

TEST_F(DevmgmtTest, OtherProcessesWriteWhileAReaderHoldsASnapshot) {
    Device v1 = sample();
    ASSERT_TRUE(v1.write_to_shmem());  // the children inherit an open table
    const std::optional<nk::devMgmt::Snapshot> snapshot = nk::devMgmt::Snapshot::take();
    ASSERT_TRUE(snapshot);
    Device v2 = v1;
    v2.display_name = "renamed";
    const pid_t writer = ::fork();
    if (writer == 0)
        ::_exit(v2.write_to_shmem() && sample("child").write_to_shmem() ? 0 : 1);
    ASSERT_EQ(nk::test::reap(writer), 0);
    EXPECT_EQ(snapshot->get("id1"), v1);
    EXPECT_EQ(load("id1"), v2);
    EXPECT_EQ(load("child"), sample("child"));
    EXPECT_EQ(Device::list().size(), 2u);
}

TEST_F(DevmgmtTest, FullMapIsAnErrorAndTheTableSurvives) {
    const ScopedEnv small(nk::devMgmt::kDevmgmtMapSizeEnv, "262144");
    Device big = sample("big");
    big.display_name.assign(16384, 'n');
    int written = 0;
    for (; written < 64; ++written) {
        big.device_id = "big" + std::to_string(written);
        if (!big.write_to_shmem())
            break;
    }
    ASSERT_GT(written, 0);
    ASSERT_LT(written, 64);
    big.device_id = "big0";
    EXPECT_EQ(load("big0"), big);
    // An unchanged record costs no write at all, so even a full table takes it.
    EXPECT_TRUE(big.write_to_shmem());

    nk::devMgmt::close_table();
    const ScopedEnv large(nk::devMgmt::kDevmgmtMapSizeEnv, std::nullopt);
    big.device_id = "after";
    EXPECT_TRUE(big.write_to_shmem());
    EXPECT_EQ(Device::list().size(), static_cast<std::size_t>(written) + 1);
}

TEST_F(DevmgmtTest, TableDescriptorsAreCloseOnExec) {
    ASSERT_TRUE(sample().write_to_shmem());
    int table_fds = 0;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;  // the iterator's own descriptor
        const std::string target = std::filesystem::read_symlink(fd, gone);
        if (target.rfind(dir_.path(), 0) == 0) {
            ++table_fds;
            EXPECT_TRUE(::fcntl(std::stoi(fd.path().filename()), F_GETFD) & FD_CLOEXEC) << target;
        }
    }
    EXPECT_GE(table_fds, 2);  // data and lock file
}

TEST_F(DevmgmtTest, InvalidUtf8IsReplacedNotRefused) {
    Device d = sample();
    d.display_name = "caf\xe9";
    ASSERT_TRUE(d.write_to_shmem());
    EXPECT_EQ(load("id1")->display_name, "caf\xEF\xBF\xBD");
}

TEST(DeviceJson, WrongTypesLeaveTheRecordUnchanged) {
    for (const auto& row : cases("wrong_types")) {
        Device d = sample();
        EXPECT_FALSE(d.from_json(row.get(nullptr))) << row.text();
        EXPECT_EQ(d, sample()) << row.text();
    }
    EXPECT_FALSE(Device().from_json(nullptr));
}

TEST(DeviceJson, BadMacipsEntriesAreSkipped) {
    Device d;
    for (const auto& row : cases("bad_macips"))
        ASSERT_TRUE(d.from_json(row.get(nullptr)));
    Device expected;
    expected.device_id = "x";
    expected.macips[macaddr("aa:bb:cc:dd:ee:01")] = {address("10.0.0.1"), address("fe80::1")};
    EXPECT_EQ(d, expected);
}

}  // namespace
