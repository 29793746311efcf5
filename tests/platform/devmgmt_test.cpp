#include "nk/devmgmt.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "nk/constants.h"
#include "nk/json.h"
#include "temp_dir.h"
#include "wait.h"

namespace {

using nk::devMgmt::Device;
using nk::sockutl::address;
using nk::sockutl::macaddr;
using nk::test::ScopedEnv;
using nk::test::TempDir;

Device sample(const std::string& id) {
    Device d;
    d.device_id = id;
    d.local_id = "local-" + id;
    d.profile_id = "p1";
    d.display_name = "Kitchen \"TV\"";
    d.friendly_name = "tv";
    d.device_type = "tv";
    d.device_os = "tizen";
    d.device_os_version = "6.5";
    d.device_model = "QE55";
    d.mac_vendor = "Samsung";
    d.box_device_id = "b1";
    d.box_detected_name = "samsung-tv";
    d.box_detected_name_history = R"(["a","b"])";
    d.apps = {{"netflix", 3}, {"zoom", -1}};
    d.created = 1700000000123;
    d.blocked = 1;
    d.upnp_enabled = 2;
    d.onguest = 3;
    d.scan_level = 4;
    d.va_scan_level = 5;
    d.onbox = 6;
    d.macips[macaddr("aa:bb:cc:dd:ee:01")] = {address("192.168.1.20"), address("fe80::1")};
    d.macips[macaddr("aa:bb:cc:dd:ee:02")] = {};
    return d;
}

std::optional<Device> load(const std::string& id, bool lock = false) {
    Device d;
    d.device_id = id;
    if (!d.load_from_shmem(lock, true))
        return std::nullopt;
    return d;
}

// Runs `body` in a child process; true when it exited with status 0 within the time-out.
template <typename Body>
bool in_child(Body body) {
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(body() ? 0 : 1);
    int status = -1;
    const bool done = nk::test::wait_until([&] { return ::waitpid(pid, &status, WNOHANG) == pid; });
    if (!done) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    }
    return done && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class DevmgmtTest : public ::testing::Test {
protected:
    void TearDown() override { nk::devMgmt::close_table(); }

    TempDir dir_;
    // A directory that does not exist yet: the table creates it.
    ScopedEnv env_{nk::kDevmgmtDirEnv, dir_ / "shm/devmgmt"};
};

TEST_F(DevmgmtTest, EveryFieldRoundTripsThroughTheTable) {
    const Device stored = sample("id1");
    ASSERT_TRUE(stored.write_to_shmem());
    EXPECT_EQ(load("id1"), stored);
    EXPECT_EQ(load("id1", true), stored);

    Device by_local;
    by_local.local_id = "local-id1";
    by_local.display_name = "stale";
    ASSERT_TRUE(by_local.load_from_shmem(false, false));
    EXPECT_EQ(by_local, stored);
}

TEST_F(DevmgmtTest, DeleteAndAbsentRecords) {
    ASSERT_TRUE(sample("id1").write_to_shmem());
    EXPECT_TRUE(sample("id1").delete_shmem());
    EXPECT_FALSE(sample("id1").delete_shmem());

    Device absent = sample("id1");
    EXPECT_FALSE(absent.load_from_shmem(false, true));
    EXPECT_EQ(absent, sample("id1"));  // untouched
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

TEST_F(DevmgmtTest, RecordWrittenByAnotherProcessIsSeen) {
    ASSERT_TRUE(sample("parent").write_to_shmem());  // the child inherits an open table
    ASSERT_TRUE(in_child([] { return sample("child").write_to_shmem(); }));
    EXPECT_EQ(load("child"), sample("child"));
    EXPECT_EQ(Device::list().size(), 2u);
}

TEST_F(DevmgmtTest, OpenReaderDoesNotBlockAWriter) {
    Device v1 = sample("id1");
    ASSERT_TRUE(v1.write_to_shmem());
    const std::optional<nk::devMgmt::Snapshot> snapshot = nk::devMgmt::Snapshot::take();
    ASSERT_TRUE(snapshot);

    Device v2 = v1;
    v2.display_name = "renamed";
    ASSERT_TRUE(in_child([&] { return v2.write_to_shmem(); }));
    EXPECT_EQ(snapshot->get("id1"), v1);
    EXPECT_EQ(load("id1"), v2);
}

TEST_F(DevmgmtTest, FullMapIsAnErrorAndTheTableSurvives) {
    const ScopedEnv small(nk::devMgmt::kDevmgmtMapSizeEnv, "262144");
    Device big = sample("big");
    big.display_name.assign(16384, 'n');
    int written = 0;
    while (written < 64) {
        big.device_id = "big" + std::to_string(written);
        if (!big.write_to_shmem())
            break;
        ++written;
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
    ASSERT_TRUE(sample("id1").write_to_shmem());
    DIR* fds = ::opendir("/proc/self/fd");
    ASSERT_NE(fds, nullptr);
    int table_fds = 0;
    while (const dirent* entry = ::readdir(fds)) {
        char target[PATH_MAX] = {};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (::readlink(link.c_str(), target, sizeof target - 1) <= 0)
            continue;
        if (std::string(target).rfind(dir_.path(), 0) != 0)
            continue;
        ++table_fds;
        EXPECT_TRUE(::fcntl(std::stoi(entry->d_name), F_GETFD) & FD_CLOEXEC) << target;
    }
    ::closedir(fds);
    EXPECT_GE(table_fds, 2);  // data and lock file
}

TEST_F(DevmgmtTest, InvalidUtf8IsReplacedNotRefused) {
    Device d = sample("id1");
    d.display_name = "caf\xe9";
    ASSERT_TRUE(d.write_to_shmem());
    EXPECT_EQ(load("id1")->display_name, "caf\xEF\xBF\xBD");
}

TEST(DeviceJson, WrongTypesLeaveTheRecordUnchanged) {
    for (const char* text :
         {R"([])", R"("x")", R"({"display_name":3})", R"({"blocked":"1"})", R"({"blocked":1.0})",
          R"({"onbox":4294967296})", R"({"created":"1"})", R"({"apps":[]})",
          R"({"apps":{"a":"1"}})", R"({"macips":["aa:bb:cc:dd:ee:01"]})"}) {
        SCOPED_TRACE(text);
        const nk::json_ptr json(json_loads(text, JSON_DECODE_ANY, nullptr));
        ASSERT_TRUE(json);
        Device d = sample("id1");
        EXPECT_FALSE(d.from_json(json.get()));
        EXPECT_EQ(d, sample("id1"));
    }
    EXPECT_FALSE(Device().from_json(nullptr));
}

TEST(DeviceJson, BadMacipsEntriesAreSkipped) {
    const nk::json_ptr json(json_loads(
        R"({"device_id":"x","macips":{"zz":["10.0.0.1"],"ff:ff:ff:ff:ff:ff":[],
            "aa:bb:cc:dd:ee:03":"10.0.0.1",
            "AA-BB-CC-DD-EE-01":["10.0.0.1","bogus",5,"fe80::1%eth0"]}})",
        0, nullptr));
    Device d;
    ASSERT_TRUE(d.from_json(json.get()));
    Device expected;
    expected.device_id = "x";
    expected.macips[macaddr("aa:bb:cc:dd:ee:01")] = {address("10.0.0.1"), address("fe80::1")};
    EXPECT_EQ(d, expected);
}

}  // namespace
