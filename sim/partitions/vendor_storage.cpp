// The vendor-storage store: numbered items kept as files of the board root,
// served both by the HAL's hal_vendor_storage_* and by the kernel node
// "/dev/vendor_storage" with its read and write requests.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>

#include "platform/hal.h"
#include "platform/vendor_storage.h"
#include "sim/board.h"
#include "sim/partitions/partitions.h"
#include "sim/state.h"

namespace fs = std::filesystem;

namespace vexa::sim::partitions {
namespace {

constexpr size_t kItemMax = 4096;
constexpr int kItemIdMax = 0xffff;

// The node's request, as the kernel driver defines it.
namespace node = vexa::vendor_storage;

std::mutex store_mu;

// The item's bytes; false when it was never written.
bool load_item(const std::string &root, int item, std::string *bytes)
{
    std::lock_guard<std::mutex> lock(store_mu);
    auto text = Folder(root).read(vendor_item_path(item));
    if (!text)
        return false;
    *bytes = std::move(*text);
    return true;
}

bool store_item(const std::string &root, int item, const void *data, size_t len)
{
    std::lock_guard<std::mutex> lock(store_mu);
    const Folder folder(root);
    const std::string path = vendor_item_path(item);
    const std::string tmp = path + ".new";
    if (folder.write(tmp, std::string(static_cast<const char *>(data), len)) != 0)
        return false;
    return folder.rename(tmp, path) == 0;
}

class VendorStorageNode : public DeviceModel {
public:
    explicit VendorStorageNode(std::string root) : root_(std::move(root)) {}

    int open(const Folder &, const std::string &, int, mode_t) override
    {
        return ::open("/dev/null", O_RDWR | O_CLOEXEC);
    }
    ssize_t read(int, void *, size_t) override { return fail(EINVAL); }
    ssize_t write(int, const void *, size_t) override { return fail(EINVAL); }

    int ioctl(int, unsigned long request, void *arg) override
    {
        auto *req = static_cast<node::Request *>(arg);
        if (req == nullptr || req->tag != node::kTag)
            return int(fail(EINVAL));
        if (request == node::kWrite) {
            if (req->len > node::kDataMax)
                return int(fail(EINVAL));
            return store_item(root_, req->id, req->data, req->len) ? 0 : int(fail(EIO));
        }
        if (request == node::kRead) {
            std::string bytes;
            if (!load_item(root_, req->id, &bytes))
                return int(fail(ENOENT));
            const size_t n = std::min<size_t>({bytes.size(), req->len, node::kDataMax});
            memcpy(req->data, bytes.data(), n);
            req->len = uint16_t(n);
            return 0;
        }
        return int(fail(ENOTTY));
    }

    // The driver's request numbers encode 4 bytes; the request is larger.
    size_t ioctl_size(unsigned long) const override { return sizeof(node::Request); }

private:
    static ssize_t fail(int error)
    {
        errno = error;
        return -1;
    }
    std::string root_;
};

} // namespace

VEXA_SIM_ATTACHER(vendor_storage)
{
    board.add_model(node::kNode, std::make_shared<VendorStorageNode>(board.root()));
}

} // namespace vexa::sim::partitions

// hal_vendor_storage_*: a is the length of the buffer in bytes, b is not used.
// A read returns the bytes copied (at most a), -1 for an item never written.
extern "C" int hal_vendor_storage_read(int item, void *buf, uint32_t a, uint32_t)
{
    auto state = vexa::sim::attached();
    if (!state) {
        errno = ENODEV;
        return -1;
    }
    long fault_result;
    if (vexa::sim::fault_fires(*state, "hal_vendor_storage_read", std::to_string(item),
                               &fault_result))
        return int(fault_result);
    if (item < 0 || item > vexa::sim::partitions::kItemIdMax || (buf == nullptr && a != 0)) {
        errno = EINVAL;
        return -1;
    }
    std::string bytes;
    if (!vexa::sim::partitions::load_item(state->root, item, &bytes)) {
        errno = ENOENT;
        return -1;
    }
    const size_t n = std::min<size_t>(bytes.size(), a);
    memcpy(buf, bytes.data(), n);
    return int(n);
}

extern "C" int hal_vendor_storage_write(int item, const void *buf, uint32_t a, uint32_t)
{
    auto state = vexa::sim::attached();
    if (!state) {
        errno = ENODEV;
        return -1;
    }
    long fault_result;
    if (vexa::sim::fault_fires(*state, "hal_vendor_storage_write", std::to_string(item),
                               &fault_result))
        return int(fault_result);
    if (item < 0 || item > vexa::sim::partitions::kItemIdMax || (buf == nullptr && a != 0) ||
        a > vexa::sim::partitions::kItemMax) {
        errno = EINVAL;
        return -1;
    }
    return vexa::sim::partitions::store_item(state->root, item, buf, a) ? int(a) : -1;
}
