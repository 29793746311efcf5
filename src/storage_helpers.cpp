#include "storage_helpers.h"

#include <cerrno>
#include <cstring>
#include <mutex>

#include <nk/log.h>
#include <nk/nkerrno.h>
#include <nk/setmgmt.h>

#include "globals.h"

bool write_device_to_storage(const Device& device, bool flag) {
    if (!device.to_devmgmt_device().write_to_shmem())
        return false;
    const nk::path key = device.device_key();
    if (nk::setMgmt::setKey(key, flag ? "1" : "0") < 0)
        NK_LOG(nk::log::WARN, "{} setKey error", key);
    return true;
}

void remove_device_from_storage(const Device& device) {
    NK_LOG(nk::log::INFO, "removing device from storage: {:s}", device.cloud.device_id);
    const nk::path key = device.device_key();
    if (nk::setMgmt::deleteKey(key) < 0)
        NK_LOG(nk::log::WARN, "{} removeKey error", key);
    device.to_devmgmt_device().delete_shmem();
}

std::optional<Device> load_device_from_storage(const std::string& device_id) {
    nk::devMgmt::Device record;
    record.device_id = device_id;
    if (!record.load_from_shmem(false, true))
        return std::nullopt;
    Device device;
    device.from_devmgmt_device(record);
    return device;
}

bool load_devices_from_storage(std::vector<Device>& out) {
    NK_LOG(nk::log::INFO, "loading devices from storage");
    std::vector<std::string> names;
    if (nk::setMgmt::enumSubkeys(Device::base_key, names) < 0) {
        // A box that never stored a device has no /devices yet: that is an empty inventory.
        if (nkerrno == ENOENT)
            return true;
        NK_LOG(nk::log::WARN, "enumSubkeys({:s}) ({:s})", Device::base_key.str(),
               std::strerror(nkerrno));
        return false;
    }
    for (const std::string& name : names) {
        if (std::optional<Device> device = load_device_from_storage(name))
            out.push_back(std::move(*device));
    }
    return true;
}
