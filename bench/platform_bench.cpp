// Costs of the platform calls the daemon makes per device and per bus message.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <nk/devmgmt.h>
#include <nk/setmgmt.h>
#include <nk/sockutl.h>

namespace {

// A scratch directory for one benchmark, removed at the end.
class Scratch {
public:
    Scratch() {
        std::string pattern = "/tmp/nkbench.XXXXXX";
        path_ = ::mkdtemp(pattern.data()) ? pattern : "/tmp";
    }
    ~Scratch() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

void BM_MacParse(benchmark::State& state) {
    for (auto _ : state) {
        nk::sockutl::macaddr mac("a4:5e:60:c2:1f:0b");
        benchmark::DoNotOptimize(mac);
    }
}
BENCHMARK(BM_MacParse);

void BM_AddressParseV6(benchmark::State& state) {
    for (auto _ : state) {
        nk::sockutl::address ip("fe80::1c2b:3aff:fe4d:5e6f%br0");
        benchmark::DoNotOptimize(ip);
    }
}
BENCHMARK(BM_AddressParseV6);

void BM_SettingsGetKey(benchmark::State& state) {
    Scratch dir;
    ::setenv("NK_SETTINGS_DIR", dir.path().c_str(), 1);
    nk::setMgmt::setKey("/daemons/nkdevicediscovery/retry_interval", "5");
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            nk::setMgmt::getKeyValue("/daemons/nkdevicediscovery/retry_interval", 0));
    }
}
BENCHMARK(BM_SettingsGetKey);

void BM_DeviceTableWriteLoad(benchmark::State& state) {
    Scratch dir;
    ::setenv("NK_DEVMGMT_DIR", dir.path().c_str(), 1);
    nk::devMgmt::Device device;
    device.device_id = "3f2c8a5e-0b1d-4c6e-9f7a-2d4b6c8e0a1f";
    device.box_detected_name = "living-room-tv";
    device.macips[nk::sockutl::macaddr("a4:5e:60:c2:1f:0b")] = {
        nk::sockutl::address("192.168.1.23"), nk::sockutl::address("fe80::1")};
    for (auto _ : state) {
        benchmark::DoNotOptimize(device.write_to_shmem());
        nk::devMgmt::Device loaded;
        loaded.device_id = device.device_id;
        benchmark::DoNotOptimize(loaded.load_from_shmem(false, true));
    }
    nk::devMgmt::close_table();
}
BENCHMARK(BM_DeviceTableWriteLoad);

}  // namespace

BENCHMARK_MAIN();
