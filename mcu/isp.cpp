// The ROM-bootloader flasher: reset sequences, start byte, command and
// acknowledge exchanges, product ids, page erase and block writes.
#include <termios.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "mcu/mcu_internal.h"
#include "mcu/mcu_reply.h"
#include "mcu/serial_wait.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/unique.h"
#include "vexasdk/mcu.h"

namespace {

constexpr const char *kTag = "vexa_system_fw_update";
constexpr uint32_t kBlock = 256;

int g_mcu_type = MCU_UNKNOWN;
mcu_isp_progress_fn g_progress = nullptr;
void *g_progress_user = nullptr;

using vexa::UniqueFile;

bool have_descriptor()
{
    if (vexa::mcu::serial_fd() >= 0)
        return true;
    VEXA_LOGD(kTag, "mcu serial init error. \n");
    return false;
}

uint8_t read_byte(uint8_t initial)
{
    uint8_t byte = initial;
    mcu_serial_read(&byte, 1);
    return byte;
}

void send_bytes(std::initializer_list<uint8_t> bytes)
{
    std::vector<uint8_t> buf(bytes);
    mcu_serial_write(buf.data(), static_cast<uint32_t>(buf.size()));
}

} // namespace

namespace vexa::mcu {

void set_sysfs_gpio(const char *name, int value)
{
    const std::string command =
        "echo " + std::to_string(value) + " > /sys/class/vexagpios/" + name + "/value";
    vexa::os::system(command.c_str());
}

// Pages the erase covers for an image ending `len` bytes above the flash base.
uint32_t erase_page_count(int type, uint32_t len)
{
    switch (type) {
    case MCU_GD32F303:
        return len < 0x80000u ? len / 2048u : 256u + (len - 0x80000u) / 4096u;
    case MCU_GD32E503:
        return 1u + len / 8192u;
    case MCU_GD32F470:
        return 1u + len / 4096u;
    case MCU_STM32H750:
        return 2u;
    default:
        return 0u;
    }
}

void set_type(int type)
{
    g_mcu_type = type;
}

} // namespace vexa::mcu

extern "C" {

// Names are blank-padded to the widest one.
const isp_cmd_t isp_cmd_arr[] = {
    {0x00, "CMD_GET              "}, {0x01, "CMD_GET_VERSION      "},
    {0x02, "CMD_GET_ID           "}, {0x11, "CMD_READ_MEMORY      "},
    {0x21, "CMD_GO               "}, {0x31, "CMD_WRITE_MEMORY     "},
    {0x43, "CMD_ERASE            "}, {0x44, "CMD_EXTENDED_ERASE   "},
    {0x63, "CMD_WRITE_PROTECT    "}, {0x73, "CMD_WRITE_UNPROTECT  "},
    {0x82, "CMD_READOUT_PROTECT  "}, {0x92, "CMD_READOUT_UNPROTECT"},
    {0x06, "CMD_GET_PID          "}, {0xFF, ""},
};

const char *const str_mcu_type[5] = {
    "MCU_UNKNOWN", "MCU_GD32F303", "MCU_GD32E503", "MCU_GD32F470", "MCU_STM32H750",
};

VEXA_API void mcu_isp_set_progress(mcu_isp_progress_fn fn, void *user)
{
    g_progress = fn;
    g_progress_user = user;
}

VEXA_API int32_t mcu_get_type(void)
{
    return g_mcu_type;
}

VEXA_API void display_cmd(uint8_t code)
{
    for (const isp_cmd_t *row = isp_cmd_arr; row->code != 0xFF; ++row) {
        if (row->code == code) {
            VEXA_LOGD(kTag, "send cmd [0x%02x] : %s \n", code, row->name);
            return;
        }
    }
}

VEXA_API void mcu_isp_init(void)
{
    VEXA_LOGD(kTag, " ==========> [isp init]. \n");
    vexa::mcu::set_sysfs_gpio("MCU_BOOT0", 1);
    vexa::os::sleep_us(100000);
    vexa::mcu::set_sysfs_gpio("MCU_NRST", 0);
    vexa::os::sleep_us(300000);
    vexa::mcu::set_sysfs_gpio("MCU_NRST", 1);
    vexa::os::sleep_us(100000);
}

VEXA_API void mcu_isp_close(void)
{
    VEXA_LOGD(kTag, " <========== [isp close]. \n");
    vexa::mcu::set_sysfs_gpio("MCU_BOOT0", 0);
    vexa::os::sleep_us(300000);
    vexa::mcu::set_sysfs_gpio("MCU_NRST", 0);
    vexa::os::sleep_us(100000);
    vexa::mcu::set_sysfs_gpio("MCU_NRST", 1);
    vexa::os::sleep_us(100000);
}

VEXA_API void mcu_enter_isp_mode(void)
{
    VEXA_LOGD(kTag, "%s: ==========> [enter isp]. \n", __func__);
    vexa::mcu::set_sysfs_gpio("MCU_NRST", 0);
    vexa::os::sleep_us(400000);
    vexa::mcu::set_sysfs_gpio("MCU_BOOT0", 1);
    vexa::os::sleep_us(400000);
    vexa::mcu::set_sysfs_gpio("MCU_NRST", 1);
}

VEXA_API void mcu_exit_isp_mode(void)
{
    VEXA_LOGD(kTag, "%s: <========== [exit isp]. \n", __func__);
    vexa::mcu::set_sysfs_gpio("MCU_BOOT0", 0);
    vexa::os::sleep_us(20000);
    vexa::mcu::set_sysfs_gpio("MCU_NRST", 0);
    vexa::os::sleep_us(20000);
    vexa::mcu::set_sysfs_gpio("MCU_NRST", 1);
}

VEXA_API int32_t ack_startisp(void)
{
    if (!have_descriptor())
        return 1;
    send_bytes({MCU_ISP_START});
    // A read that times out leaves the start byte in place: neither answer.
    const uint8_t ack = read_byte(MCU_ISP_START);
    VEXA_LOGD(kTag, "%s: mcu_serial_read ACK data:0x%02x\n", __func__, ack);
    if (ack == MCU_ISP_ACK)
        return 0;
    return ack == MCU_ISP_NACK ? 6 : 15;
}

VEXA_API int32_t ack_sendcmd(uint8_t command)
{
    if (!have_descriptor())
        return -4;
    display_cmd(command);
    const bool extended_erase = command == 0x44;
    if (extended_erase)
        VEXA_LOGD(kTag, "%s: CMD_EXTENDED_ERASE start\n", __func__);
    const uint8_t pair[2] = {command, static_cast<uint8_t>(~command)};
    mcu_serial_write(pair, 2);
    uint8_t ack = 0;
    int rc = mcu_serial_read(&ack, 1);
    if (extended_erase) {
        // The raw read gives only 0 or 3, so these resends do not happen.
        for (int i = 0; i < 10 && rc != 0 && rc != 3; ++i) {
            vexa::os::sleep_us(2000);
            mcu_serial_write(pair, 2);
            rc = mcu_serial_read(&ack, 1);
        }
        VEXA_LOGD(kTag, "%s: CMD_EXTENDED_ERASE end\n", __func__);
    }
    if (ack == MCU_ISP_ACK)
        return 0;
    return ack == MCU_ISP_NACK ? -1 : -2;
}

VEXA_API int32_t erasememory_extend(uint32_t start, uint32_t length)
{
    const uint32_t len = start + length - MCU_ISP_FLASH_BASE;
    const uint32_t pages = vexa::mcu::erase_page_count(g_mcu_type, len);
    VEXA_LOGD(kTag, "CMD_EXTENDED_ERASE: len = %d, page_cnt = %d\n", static_cast<int>(len),
              static_cast<int>(pages));
    // The write position and the byte count are kept to 8 bits: a command
    // for 127 pages or more is cut short on the wire. Keep it so; the buffer
    // is larger than any position.
    uint8_t cmd[320] = {};
    uint8_t pos = 0;
    uint8_t checksum = 0;
    auto put = [&](uint8_t byte) {
        cmd[pos++] = byte;
        checksum ^= byte;
    };
    const uint16_t field = static_cast<uint16_t>(pages - 1);
    put(static_cast<uint8_t>(field >> 8));
    put(static_cast<uint8_t>(field));
    for (uint32_t page = 0; page < pages; ++page) {
        put(static_cast<uint8_t>(page >> 8));
        put(static_cast<uint8_t>(page));
    }
    cmd[pos] = checksum;
    const uint8_t count = static_cast<uint8_t>(((2 + 2 * pages) & 0xFF) | 1);
    VEXA_LOGD(kTag, "CMD_EXTENDED_ERASE: send erase pages.\n");
    mcu_serial_write(cmd, count);
    // The erase takes up to a second; its acknowledge is taken when it comes.
    if (vexa::mcu::serial_fd() >= 0)
        vexa::mcu::wait_readable(vexa::mcu::serial_fd(), 1000);
    const uint8_t ack = read_byte(0);
    VEXA_LOGD(kTag, "mcu_serial_read ACK data:0x%02x\n", ack);
    if (ack == MCU_ISP_ACK)
        return 0;
    VEXA_LOGD(kTag, " erasememory_extend ack error! check it !!! \n");
    return -1;
}

VEXA_API int32_t writememory_2mcu(uint32_t address, const uint8_t *data, uint32_t length)
{
    const uint32_t times = (length + kBlock - 1) / kBlock;
    const uint32_t last = length % kBlock;
    VEXA_LOGD(kTag, "%s: w_addr=0x%08x, w_size=%d, all_len=%d, w_times=%d, w_last=%d\n", __func__,
              address, static_cast<int>(kBlock), static_cast<int>(length), static_cast<int>(times),
              static_cast<int>(last));
    uint32_t written = 0;
    uint8_t frame[1 + kBlock + 1];
    // The progress line of a written block is logged once the next block's
    // command is on its way, while the bootloader answers it: the lines and
    // the bytes on the line stay in their order, and the turnaround between
    // two blocks carries no logging.
    bool progress_due = false;
    auto report_progress = [&] {
        if (!progress_due)
            return;
        progress_due = false;
        VEXA_LOGD(kTag, "\r write mcu internal flash: [%d%%]", static_cast<int>(100ull * written / length));
        if (g_progress)
            g_progress(written, length, g_progress_user);
    };
    for (uint32_t i = 0; i < times && data; ++i) {
        const uint32_t size = (i + 1 == times && last) ? last : kBlock;
        if (vexa::mcu::serial_fd() < 0) {
            report_progress();
            have_descriptor(); // logs the missing descriptor
            VEXA_LOGE(kTag, "%s: ack_sendcmd(CMD_WRITE_MEMORY) failed", __func__);
            continue;
        }
        send_bytes({0x31, 0xCE});
        report_progress();
        if (read_byte(0) != MCU_ISP_ACK) {
            VEXA_LOGE(kTag, "%s: ack_sendcmd(CMD_WRITE_MEMORY) failed", __func__);
            continue;
        }
        uint8_t addr[5] = {static_cast<uint8_t>(address >> 24), static_cast<uint8_t>(address >> 16),
                           static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address), 0};
        addr[4] = addr[0] ^ addr[1] ^ addr[2] ^ addr[3];
        mcu_serial_write(addr, 5);
        const uint8_t *block = data + i * kBlock;
        uint8_t checksum = static_cast<uint8_t>(size - 1);
        frame[0] = checksum;
        for (uint32_t k = 0; k < size; ++k) {
            frame[1 + k] = block[k];
            checksum ^= block[k];
        }
        frame[1 + size] = checksum;
        read_byte(0); // not judged
        mcu_serial_write(frame, size + 2);
        read_byte(0); // not judged
        address += size;
        written += size;
        progress_due = true;
    }
    report_progress();
    const int percent = length ? static_cast<int>(100ull * written / length) : 100;
    VEXA_LOGD(kTag, "%s: final write mcu internal flash: [%d]", __func__, percent);
    if (percent >= 100)
        return 0;
    VEXA_LOGE(kTag, "%s: fw update progress < 100\n", __func__);
    return -1;
}

VEXA_API int32_t readmemory_4mcu(uint32_t address, uint8_t *data, uint32_t length)
{
    if (!data || !have_descriptor())
        return -1;
    uint32_t done = 0;
    while (done < length) {
        const uint32_t size = length - done < kBlock ? length - done : kBlock;
        if (ack_sendcmd(0x11) != 0)
            return -1;
        uint8_t addr[5] = {static_cast<uint8_t>(address >> 24), static_cast<uint8_t>(address >> 16),
                           static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address), 0};
        addr[4] = addr[0] ^ addr[1] ^ addr[2] ^ addr[3];
        mcu_serial_write(addr, 5);
        if (read_byte(0) != MCU_ISP_ACK)
            return -1;
        const uint8_t n = static_cast<uint8_t>(size - 1);
        const uint8_t count[2] = {n, static_cast<uint8_t>(~n)};
        mcu_serial_write(count, 2);
        if (read_byte(0) != MCU_ISP_ACK)
            return -1;
        if (mcu_serial_read(data + done, size) != 0)
            return -1;
        done += size;
        address += size;
        VEXA_LOGD(kTag, "\r read mcu internal flash: [%d%%]", static_cast<int>(100ull * done / length));
    }
    return 0;
}

VEXA_API uint32_t read_gd_mcu_pid(void)
{
    if (!have_descriptor())
        return 0;
    send_bytes({0x06, 0xF9});
    if (read_byte(0) != MCU_ISP_ACK)
        return 0;
    const int kMax = static_cast<int>(vexa::mcu::kGdPidMax);
    int len = read_byte(0);
    if (len > kMax) {
        VEXA_LOGD(kTag, "%s: read gd pid length(%d) is larger than max size(%d), use max size\n",
                  __func__, len, kMax);
        len = kMax;
    }
    VEXA_LOGD(kTag, "%s: read gd pid data len = %d\n", __func__, len);
    uint8_t reply[vexa::mcu::kGdPidMax + 1] = {};
    mcu_serial_read(reply, static_cast<uint32_t>(len + 1));
    uint8_t end = 0;
    const uint32_t pid = vexa::mcu::gd_pid_from(reply, sizeof(reply), static_cast<size_t>(len), &end);
    if (end != MCU_ISP_ACK)
        VEXA_LOGD(kTag, "%s: End byte(0x%x) is not equal to 0x79\n", __func__, end);
    return pid;
}

VEXA_API uint32_t read_st_mcu_pid(void)
{
    if (!have_descriptor())
        return 0;
    send_bytes({0x02, 0xFD});
    if (read_byte(0) != MCU_ISP_ACK)
        return 0;
    uint8_t reply[10] = {};
    mcu_serial_read(reply, sizeof(reply));
    return vexa::mcu::st_pid_from(reply, sizeof(reply));
}

VEXA_API void mcu_type_detect(void)
{
    const uint32_t gd = read_gd_mcu_pid();
    VEXA_LOGD(kTag, "%s: read gd mcu pid = 0x%x\n", __func__, gd);
    if (gd == 0x4E455A30u || gd == 0x4E455630u) {
        g_mcu_type = MCU_GD32F470;
    } else if (gd == 0x46455633u) {
        g_mcu_type = MCU_GD32F303;
    } else {
        VEXA_LOGE(kTag, "%s: not gd mcu pid = 0x%x\n", __func__, gd);
        const uint32_t st = read_st_mcu_pid();
        VEXA_LOGD(kTag, "%s: read st mcu pid = 0x%x\n", __func__, st);
        if (st == 0x450u)
            g_mcu_type = MCU_STM32H750;
        else
            VEXA_LOGD(kTag, "%s: not st mcu pid = 0x%x\n", __func__, st);
    }
    VEXA_LOGI(kTag, "%s: clear all unread uart input data\n", __func__);
    if (vexa::mcu::serial_fd() >= 0)
        tcflush(vexa::mcu::serial_fd(), TCIFLUSH);
    VEXA_LOGD(kTag, "%s: _mcu_type: %s\n", __func__, str_mcu_type[g_mcu_type]);
}

VEXA_API int64_t file_size(const char *path)
{
    UniqueFile f(path ? vexa::os::fopen(path, "rb") : nullptr);
    if (!f) {
        VEXA_LOGD(kTag, " file not exist, filename %s \n", path ? path : "(null)");
        return -1;
    }
    if (std::fseek(f.get(), 0, SEEK_END) != 0)
        return -1;
    const long size = std::ftell(f.get());
    VEXA_LOGD(kTag, "get binfile size: %d\n", static_cast<int>(size));
    return size;
}

VEXA_API int64_t file_read(const char *path, uint8_t *buf, uint64_t size)
{
    if (!path || vexa::os::access(path, 0) != 0) {
        VEXA_LOGD(kTag, " file not exist, binfile %s \n", path ? path : "(null)");
        return -1;
    }
    UniqueFile f(vexa::os::fopen(path, "rb"));
    if (!f || (!buf && size)) {
        VEXA_LOGD(kTag, "file open error:%s. \n", path);
        return -1;
    }
    VEXA_LOGD(kTag, "fread binfile to binbuff . \n");
    return static_cast<int64_t>(std::fread(buf, 1, size, f.get()));
}

VEXA_API int64_t file_write(const char *path, const uint8_t *buf, uint64_t size)
{
    UniqueFile f(path ? vexa::os::fopen(path, "wb") : nullptr);
    if (!f || (!buf && size)) {
        VEXA_LOGD(kTag, "file open error:%s. \n", path ? path : "(null)");
        return -1;
    }
    VEXA_LOGD(kTag, "fwrite binbuff to binfile(%s).\n", path);
    return static_cast<int64_t>(std::fwrite(buf, 1, size, f.get()));
}

VEXA_API int32_t mcu_tool_isp_task(const char *file_path, const char *uart_path)
{
    VEXA_LOGD(kTag, "\n [*]. do task ! \n");
    // Odd parity, as the bootloaders on these boards are wired.
    mcu_serial_init(uart_path, 115200, 8, 1, 'O');
    mcu_isp_init();
    vexa::os::sleep_us(500000);

    int32_t result = MCU_ISP_TASK_FAILED;
    std::vector<uint8_t> image;
    bool greeted = false;
    for (int left = 3; left > 0 && !greeted; --left) {
        VEXA_LOGD(kTag, "try_times = %d\n", left);
        greeted = ack_startisp() == 0;
    }
    if (greeted) {
        VEXA_LOGD(kTag, "\n %s: [*]. erase mcu memory by page(in CMD_WRITE_MEMORY case).\n",
                  __func__);
        mcu_type_detect();
        if (ack_sendcmd(0x44) != 0) {
            VEXA_LOGD(kTag, "ack_sendcmd CMD_EXTENDED_ERASE failed.\n");
        } else {
            int64_t size = file_size(file_path);
            if (size == -1)
                size = 0; // a missing file flashes nothing
            if (size < 0 || size > 0x7FFFFFFF) {
                VEXA_LOGD(kTag, "get bootsize error.\n");
            } else {
                erasememory_extend(MCU_ISP_FLASH_BASE, static_cast<uint32_t>(size));
                VEXA_LOGD(kTag, "\n [*]. write mcu internal flash.\n");
                bool loaded = true;
                try {
                    image.resize(static_cast<size_t>(size));
                } catch (const std::bad_alloc &) {
                    VEXA_LOGD(kTag, "malloc failed. \n");
                    loaded = false;
                }
                if (loaded && file_read(file_path, image.data(), image.size()) != size) {
                    VEXA_LOGD(kTag, "file_read failed. \n");
                    loaded = false;
                }
                if (loaded) {
                    const int32_t ret = writememory_2mcu(MCU_ISP_FLASH_BASE, image.data(),
                                                         static_cast<uint32_t>(size));
                    if (ret < 0)
                        VEXA_LOGD(kTag, "writememory_2mcu failed. ret = %d\n", ret);
                    else
                        result = ret;
                }
            }
        }
    }
    mcu_serial_close();
    VEXA_LOGD(kTag, "\n [*]. close isp mode.\n");
    mcu_isp_close();
    return result;
}

// Greets the bootloader, up to three tries.
static bool greet()
{
    for (int left = 3; left > 0; --left) {
        VEXA_LOGD(kTag, "try_times = %d\n", left);
        if (ack_startisp() == 0)
            return true;
    }
    return false;
}

// An unprotect command: acknowledged twice, then the chip restarts its
// bootloader, which must be greeted again.
static bool unprotect(uint8_t command)
{
    if (ack_sendcmd(command) != 0 || read_byte(0) != MCU_ISP_ACK)
        return false;
    vexa::os::sleep_us(100000);
    return greet();
}

VEXA_API int32_t task(const char *file_path, const char *uart_path)
{
    const char *image_path = file_path ? file_path : MCU_ISP_TEST_IMAGE;
    VEXA_LOGD(kTag, "\n [*]. do interactive task with %s ! \n", image_path);
    mcu_serial_init(uart_path, 115200, 8, 1, 'O');
    mcu_isp_init();
    vexa::os::sleep_us(500000);
    int32_t result = MCU_ISP_TASK_FAILED;
    std::vector<uint8_t> image;
    const int64_t size = file_size(image_path);
    if (size >= 0 && size <= 0x7FFFFFFF) {
        image.resize(static_cast<size_t>(size));
        if (file_read(image_path, image.data(), image.size()) != size)
            image.clear();
    }
    if (image.empty() && size != 0) {
        VEXA_LOGE(kTag, "%s: cannot read %s\n", __func__, image_path);
    } else if (!greet()) {
        VEXA_LOGE(kTag, "%s: the bootloader does not answer\n", __func__);
    } else if (!unprotect(0x92) || !unprotect(0x73)) {
        VEXA_LOGE(kTag, "%s: readout or write unprotect failed\n", __func__);
    } else {
        mcu_type_detect();
        const uint32_t len = static_cast<uint32_t>(image.size());
        if (ack_sendcmd(0x44) == 0 && erasememory_extend(MCU_ISP_FLASH_BASE, len) == 0 &&
            writememory_2mcu(MCU_ISP_FLASH_BASE, image.data(), len) == 0) {
            std::vector<uint8_t> back(image.size());
            if (readmemory_4mcu(MCU_ISP_FLASH_BASE, back.data(), len) == 0 && back == image) {
                VEXA_LOGD(kTag, "%s: read back %u bytes, equal to the image\n", __func__, len);
                result = 0;
            } else {
                VEXA_LOGE(kTag, "%s: read back differs from the image\n", __func__);
            }
        }
    }
    mcu_serial_close();
    mcu_isp_close();
    return result;
}

VEXA_API int32_t n32_uart_isp_upgrade(const char *file_path, const char *uart_path)
{
    VEXA_LOGE(kTag, "%s: the N32 UART bootloader is not supported, %s not flashed to %s\n",
              __func__, file_path ? file_path : "(null)", uart_path ? uart_path : "(null)");
    return -1;
}

} // extern "C"
