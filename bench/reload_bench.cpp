// What a load of the device list costs on the storage side: the first one, which stores every
// device, and a reload of the same list, which should find everything stored already.
//
// The settings store is on disk (a scratch directory under NK_BENCH_DIR, default /var/tmp), the
// device table where the platform keeps it (NK_DEVMGMT_DIR, default /dev/shm/...).
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nk/devmgmt.h>
#include <nk/log.h>
#include <nk/setmgmt.h>

#include "daemon_state.h"
#include "device_storage.h"
#include "device_sync.h"
#include "storage_backlog.h"

namespace {

constexpr int kDevices = 1000;

class Scratch {
public:
    explicit Scratch(const char* env, const char* base) {
        const char* dir = std::getenv(env);
        std::string pattern = std::string(dir && *dir ? dir : base) + "/nkreload.XXXXXX";
        path_ = ::mkdtemp(pattern.data()) ? pattern : "";
    }
    ~Scratch() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// A list as the cloud gives it: ids, names, a MAC each with its addresses.
std::vector<Device> cloud_list() {
    std::vector<Device> devices(kDevices);
    for (int i = 0; i < kDevices; ++i) {
        Device& d = devices[i];
        d.cloud.device_id = fmt::format("5b0e7c1a-{:04x}-4d2e-9f3a-6c8b1e2d4f60", i);
        d.cloud.friendly_name = fmt::format("device {}", i);
        d.cloud.device_type = "phone";
        d.cloud.box_device_id = "box-1";
        const std::string mac = fmt::format("02:00:00:00:{:02x}:{:02x}", i >> 8, i & 0xff);
        d.cloud.add_mac(mac);
        d.cloud.macips.add_ip(macaddr(mac),
                              address(fmt::format("192.168.{}.{}", i / 250, 2 + i % 250)));
    }
    return devices;
}

bool load_from_storage_and_sync(const std::vector<Device>& listed) {
    g_devices = listed;
    std::vector<Device> stored;
    if (!load_devices_from_storage(stored))
        return false;
    sync_devices_to_storage(stored);
    return g_storage_backlog.empty();
}

class ReloadFixture : public benchmark::Fixture {
public:
    void SetUp(const benchmark::State&) override {
        nk::log::set_level(nk::log::WARN);  // no line per device
        settings_.emplace("NK_BENCH_DIR", "/var/tmp");
        table_.emplace("NK_DEVMGMT_DIR", "/dev/shm");
        ::setenv("NK_SETTINGS_DIR", settings_->path().c_str(), 1);
        ::setenv("NK_DEVMGMT_DIR", table_->path().c_str(), 1);
        nk::setMgmt::init();
        g_device_id = "box-1";
        listed_ = cloud_list();
    }
    void TearDown(const benchmark::State&) override {
        g_devices.clear();
        nk::devMgmt::close_table();
        nk::setMgmt::uninit();
        settings_.reset();
        table_.reset();
    }

protected:
    std::optional<Scratch> settings_;
    std::optional<Scratch> table_;
    std::vector<Device> listed_;
};

// Each load in a store and a table of its own, all removed only at the end: ext4 scans past
// inodes deleted in the last 30 s when it makes new ones, which a store emptied between
// iterations would pay for thousands of times, unlike any box.
BENCHMARK_DEFINE_F(ReloadFixture, FirstLoad)(benchmark::State& state) {
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        nk::devMgmt::close_table();
        for (const auto& [env, scratch] :
             {std::pair{"NK_SETTINGS_DIR", &settings_}, std::pair{"NK_DEVMGMT_DIR", &table_}}) {
            const std::string dir = (*scratch)->path() + "/" + std::to_string(++round);
            std::filesystem::create_directory(dir);
            ::setenv(env, dir.c_str(), 1);
        }
        state.ResumeTiming();
        if (!load_from_storage_and_sync(listed_))
            state.SkipWithError("a write failed");
    }
}
BENCHMARK_REGISTER_F(ReloadFixture, FirstLoad)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

BENCHMARK_DEFINE_F(ReloadFixture, ReloadUnchanged)(benchmark::State& state) {
    load_from_storage_and_sync(listed_);
    for (auto _ : state) {
        if (!load_from_storage_and_sync(listed_))
            state.SkipWithError("a write failed");
    }
}
BENCHMARK_REGISTER_F(ReloadFixture, ReloadUnchanged)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
