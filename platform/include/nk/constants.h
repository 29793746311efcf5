// Platform constants shared by the daemons of the box.
#pragma once

#include <cstddef>
#include <string_view>

namespace nk {

inline constexpr std::string_view kTemporaryDeviceIdPrefix = "00000000-0000-0000-0000-";
inline constexpr std::size_t kUUIDLen = 36;

inline constexpr std::string_view kNetworkInterfacesKey = "/network/interfaces/roles";
inline constexpr std::string_view kDiscoveryIgnoredMacsKey =
    "/daemons/nkdevicediscovery/ignored_macs";
inline constexpr std::string_view kDefaultSettingsFeaturesKey = "/features";
inline constexpr std::string_view kDiscoveryListDevicesTimeoutKey =
    "/daemons/nkdevicediscovery/list_devices_timeout";
inline constexpr int kDiscoveryListDevicesTimeoutDefault = 86400;

inline constexpr std::string_view kLeasesModeKey = "/network/dhcp/leases_mode";
inline constexpr std::string_view kFeatureIdsKey = "/features/ids";

// Runtime locations: environment variable and its default.
inline constexpr const char* kSettingsDirEnv = "NK_SETTINGS_DIR";
inline constexpr const char* kSettingsDirDefault = "/var/lib/nk/settings";
inline constexpr const char* kDevmgmtDirEnv = "NK_DEVMGMT_DIR";
inline constexpr const char* kDevmgmtDirDefault = "/dev/shm/nk-devmgmt";
inline constexpr const char* kBrokerEnv = "NKEX_BROKER";
inline constexpr const char* kBrokerDefault = "unix:/run/nk/nkex.sock";
inline constexpr const char* kBusCredentialsDirEnv = "NKEX_CREDENTIALS_DIR";
inline constexpr const char* kBusCredentialsDirDefault = "/etc/nk/bus";
inline constexpr const char* kBusTimeoutEnv = "NKEX_TIMEOUT_MS";
inline constexpr int kBusTimeoutDefaultMs = 10000;
inline constexpr const char* kLibexecDirEnv = "NK_LIBEXEC_DIR";
inline constexpr const char* kLogLevelEnv = "NK_LOG_LEVEL";
inline constexpr int kLogLevelDefault = 2;

}  // namespace nk
