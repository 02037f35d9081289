// The U-Boot environment store: partition image <-> list of key/value entries.
#include "vexasdk/Ubootenv.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <mtd/mtd-user.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/android.h"
#include "platform/os.h"
#include "platform/unique.h"
#include "storage/env_store.h"

namespace {

const char kTag[] = "Ubootenv";
const char kPrefix[] = "ubootenv.var.";
constexpr size_t kPrefixLen = sizeof(kPrefix) - 1;
const char kLevelProperty[] = "persist.vendor.sc.log.level";

// The second copy always sits here, whatever the image size.
constexpr off_t kSecondCopy = 65536;
constexpr uint32_t kDefaultImageSize = 65536;
// Largest image a MEMGETINFO answer may ask for: anything bigger is a broken
// answer, not an environment.
constexpr uint32_t kMaxImageSize = 16u << 20;

const char kNandEnv[] = "/dev/nand_env";
const char kBlockEnv[] = "/dev/block/env";
const char kByNameEnv[] = "/dev/block/by-name/env";
const char kByNameUbootenv[] = "/dev/block/by-name/ubootenv";

constexpr size_t kKeyMax = sizeof(Ubootenv::Attribute::key);
constexpr size_t kValueMax = sizeof(Ubootenv::Attribute::value);

// Copies at most len bytes of src into a field of cap bytes, NUL-terminated.
void copy_field(char *dst, size_t cap, const char *src, size_t len)
{
    const size_t n = std::min(len, cap - 1);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

// Reads up to count bytes; returns what arrived, or the failing read's result
// when nothing did.
ssize_t read_fully(int fd, uint8_t *buf, size_t count)
{
    size_t done = 0;
    while (done < count) {
        const ssize_t n = vexa::os::read(fd, buf + done, count - done);
        if (n < 0)
            return done > 0 ? static_cast<ssize_t>(done) : n;
        if (n == 0)
            break;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

// Writes all of count bytes, going on after a short write; false when a
// write fails or makes no progress.
bool write_fully(int fd, const uint8_t *buf, size_t count)
{
    size_t done = 0;
    while (done < count) {
        const ssize_t n = vexa::os::write(fd, buf + done, count - done);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool pread_fully(int fd, uint8_t *buf, size_t count, off_t at)
{
    size_t done = 0;
    while (done < count) {
        const ssize_t n = vexa::os::pread(fd, buf + done, count - done, at + static_cast<off_t>(done));
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

uint32_t stored_crc(const uint8_t *image)
{
    uint32_t crc;
    std::memcpy(&crc, image, sizeof crc);
    return crc;
}

uint32_t data_crc(const char *data, uint32_t size)
{
    return static_cast<uint32_t>(crc32(0L, reinterpret_cast<const Bytef *>(data), size));
}

// Whether a save must write the second copy first: when the first copy on
// the medium is valid and the second is not an identical copy of it, the
// first is the one loading picks, so it is touched last. Otherwise (the first
// copy bad, or both the same) the first copy goes first.
bool second_copy_first(int fd, size_t image)
{
    std::unique_ptr<uint8_t[]> first(new (std::nothrow) uint8_t[image]);
    std::unique_ptr<uint8_t[]> second(new (std::nothrow) uint8_t[image]);
    if (!first || !second || !pread_fully(fd, first.get(), image, 0))
        return false;
    const char *data = reinterpret_cast<const char *>(first.get() + 4);
    if (stored_crc(first.get()) != data_crc(data, static_cast<uint32_t>(image - 4)))
        return false;
    return !pread_fully(fd, second.get(), image, kSecondCopy) ||
           std::memcmp(first.get(), second.get(), image) != 0;
}

// The partition's valid image as it is now: the first copy when its CRC
// holds, else the second. False when neither holds (or it cannot be read).
bool read_valid_image(const char *device, uint8_t *image, size_t size)
{
    const vexa::UniqueFd fd(vexa::os::open(device, O_RDONLY));
    if (!fd)
        return false;
    const char *data = reinterpret_cast<const char *>(image + 4);
    const uint32_t data_size = static_cast<uint32_t>(size - 4);
    if (pread_fully(fd.get(), image, size, 0) && stored_crc(image) == data_crc(data, data_size))
        return true;
    return size <= static_cast<size_t>(kSecondCopy) && pread_fully(fd.get(), image, size, kSecondCopy) &&
           stored_crc(image) == data_crc(data, data_size);
}

// The "key=value" texts of a data area, in order (texts without '=' skipped).
std::vector<std::pair<std::string, std::string>> variables_of(const char *data, size_t size)
{
    std::vector<std::pair<std::string, std::string>> out;
    for (size_t at = 0; at < size && data[at] != '\0';) {
        const size_t len = strnlen(data + at, size - at);
        const std::string text(data + at, len);
        const size_t eq = text.find('=');
        if (eq != std::string::npos)
            out.emplace_back(text.substr(0, std::min(eq, kKeyMax - 1)),
                             text.substr(eq + 1, kValueMax - 1));
        at += len + 1;
    }
    return out;
}

// Entries an update took out of a store's list because another writer
// removed their variable. A value pointer handed out earlier may still point
// into one, so they are freed only with the store's other entries.
std::mutex g_retired_mu;
std::unordered_map<const ubootenv_attribute *, std::vector<ubootenv_attribute *>> g_retired;

void retire(const ubootenv_attribute &header, ubootenv_attribute *entry)
{
    std::lock_guard<std::mutex> lock(g_retired_mu);
    g_retired[&header].push_back(entry);
}

void free_retired(const ubootenv_attribute &header)
{
    std::vector<ubootenv_attribute *> entries;
    {
        std::lock_guard<std::mutex> lock(g_retired_mu);
        auto it = g_retired.find(&header);
        if (it == g_retired.end())
            return;
        entries = std::move(it->second);
        g_retired.erase(it);
    }
    for (auto *entry : entries)
        delete entry;
}

// Holds the cross-process lock that every writer of the partition takes
// (flock on the device), for a scope. Without the device nothing is held:
// the save that follows fails on its own.
class PartitionLock {
public:
    explicit PartitionLock(const char *device) : fd_(vexa::os::open(device, O_RDONLY))
    {
        if (fd_)
            while (::flock(fd_.get(), LOCK_EX) != 0 && errno == EINTR) {
            }
    }

private:
    vexa::UniqueFd fd_;
};

} // namespace

#define ENV_E(...) say(ANDROID_LOG_ERROR, __func__, __LINE__, __VA_ARGS__)
#define ENV_I(...) say(ANDROID_LOG_INFO, __func__, __LINE__, __VA_ARGS__)
// A message whose text differs between the class and the standard-output store.
#define ENV_E2(classFmt, twinFmt, ...) \
    sayAs(ANDROID_LOG_ERROR, __func__, __LINE__, classFmt, twinFmt, __VA_ARGS__)
// Messages of the helpers of save(), which speak as save().
#define SAVE_E(...) say(ANDROID_LOG_ERROR, "save", __LINE__, __VA_ARGS__)
#define SAVE_E2(classFmt, twinFmt, ...) \
    sayAs(ANDROID_LOG_ERROR, "save", __LINE__, classFmt, twinFmt, __VA_ARGS__)

namespace vexa::storage {

EnvStore::EnvStore(Ubootenv &env)
    : EnvStore(env.mEnvPartitionName, env.mEnvPartitionSize, env.mEnvSize, env.mEnvData,
               env.mEnvCrc, env.mEnvBuf, env.mEnvAttrHeader, *env.mEnvLock.native_handle(),
               env.mEnvInitDone, Voice::SystemLog)
{
}

EnvStore::EnvStore(char (&partitionName)[32], uint32_t &partitionSize, uint32_t &size,
                   uint8_t *&data, uint32_t *&crc, char *&buf, ubootenv_attribute &header,
                   pthread_mutex_t &lock, uint8_t &initDone, Voice voice)
    : mEnvPartitionName(partitionName), mEnvPartitionSize(partitionSize), mEnvSize(size),
      mEnvData(data), mEnvCrc(crc), mEnvBuf(buf), mEnvAttrHeader(header), mEnvLock(lock),
      mEnvInitDone(initDone), mVoice(voice)
{
}

namespace {

// Holds a store's mutex for a scope.
class Hold {
public:
    explicit Hold(pthread_mutex_t &mu) : mu_(mu) { pthread_mutex_lock(&mu_); }
    ~Hold() { pthread_mutex_unlock(&mu_); }
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;

private:
    pthread_mutex_t &mu_;
};

} // namespace

void EnvStore::sayAs(int prio, const char *member, int line, const char *classFmt,
                     const char *twinFmt, ...)
{
    va_list ap;
    va_start(ap, twinFmt);
    if (mVoice == Voice::StandardOutput) {
        std::vprintf(twinFmt, ap);
        std::fflush(stdout);
        va_end(ap);
        return;
    }
    // The level is read anew for every message so that it can be changed
    // while the service runs.
    char level_text[PROPERTY_VALUE_MAX] = {0};
    property_get(kLevelProperty, level_text, "4");
    const int level = std::atoi(level_text);
    const bool shown = prio >= ANDROID_LOG_ERROR ? level < 7 : level < 5;
    if (shown) {
        char text[8192];
        int n = std::snprintf(text, sizeof text, "[%s, %s, %d] ", "Ubootenv.cpp", member, line);
        if (n < 0)
            n = 0;
        std::vsnprintf(text + n, sizeof text - static_cast<size_t>(n), classFmt, ap);
        __android_log_print(prio, kTag, "%s", text);
    }
    va_end(ap);
}

void EnvStore::say(int prio, const char *member, int line, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    char text[8192];
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    sayAs(prio, member, line, "%s", "%s", text);
}

bool EnvStore::devicePresent(const char *path)
{
    // The class asks for the file status, the standard-output store for access.
    if (mVoice == Voice::StandardOutput)
        return vexa::os::access(path, F_OK) == 0;
    struct stat st;
    return vexa::os::stat(path, &st) == 0;
}

void EnvStore::freeEntries()
{
    Ubootenv::Attribute *entry = mEnvAttrHeader.next;
    while (entry != nullptr) {
        Ubootenv::Attribute *next = entry->next;
        delete entry;
        entry = next;
    }
    free_retired(mEnvAttrHeader);
    std::memset(&mEnvAttrHeader, 0, sizeof mEnvAttrHeader);
}

void EnvStore::refresh()
{
    if (mEnvData == nullptr || mEnvPartitionSize < 8)
        return;
    std::unique_ptr<uint8_t[]> image(new (std::nothrow) uint8_t[mEnvPartitionSize]);
    if (!image || !read_valid_image(mEnvPartitionName, image.get(), mEnvPartitionSize))
        return; // no valid copy: the save that follows writes this store's own
    if (std::memcmp(image.get(), mEnvData, mEnvPartitionSize) == 0)
        return; // nobody wrote since this store last read or saved
    const auto fresh = variables_of(reinterpret_cast<const char *>(image.get() + 4), mEnvSize);

    // Entries keep their place (a value pointer handed out stays one); a
    // value another writer changed is copied in, a variable it added is
    // appended, and one it removed leaves the list.
    Ubootenv::Attribute *last = &mEnvAttrHeader;
    while (last->next != nullptr)
        last = last->next;
    for (auto &[key, value] : fresh) {
        if (set(key.c_str(), value.c_str(), false) != 0)
            continue;
        Ubootenv::Attribute *added = new (std::nothrow) Ubootenv::Attribute();
        if (added == nullptr)
            break;
        copy_field(added->key, kKeyMax, key.data(), key.size());
        copy_field(added->value, kValueMax, value.data(), value.size());
        last->next = added;
        last = added;
    }
    const auto kept = [&fresh](const char *key) {
        return std::any_of(fresh.begin(), fresh.end(), [key](const auto &v) { return v.first == key; });
    };
    if (mEnvAttrHeader.key[0] != '\0' && !kept(mEnvAttrHeader.key)) {
        // The first entry is part of the store: it is emptied, and an empty
        // entry is dropped when the data area is rebuilt.
        mEnvAttrHeader.key[0] = '\0';
        mEnvAttrHeader.value[0] = '\0';
    }
    for (Ubootenv::Attribute *entry = &mEnvAttrHeader; entry->next != nullptr;) {
        Ubootenv::Attribute *next = entry->next;
        if (kept(next->key)) {
            entry = next;
            continue;
        }
        entry->next = next->next;
        next->next = nullptr;
        retire(mEnvAttrHeader, next);
    }
    std::memcpy(mEnvData, image.get(), mEnvPartitionSize);
}

void EnvStore::release()
{
    std::free(mEnvData);
    mEnvData = nullptr;
    mEnvCrc = nullptr;
    mEnvBuf = nullptr;
    freeEntries();
    mEnvInitDone = 0;
}

bool EnvStore::allocateImage()
{
    std::free(mEnvData);
    mEnvData = static_cast<uint8_t *>(std::calloc(mEnvPartitionSize, 1));
    mEnvCrc = mEnvData ? reinterpret_cast<uint32_t *>(mEnvData) : nullptr;
    mEnvBuf = mEnvData ? reinterpret_cast<char *>(mEnvData + 4) : nullptr;
    return mEnvData != nullptr;
}
int EnvStore::init()
{
    mEnvPartitionSize = kDefaultImageSize;
    mEnvSize = kDefaultImageSize - 4;

    const char *chosen = nullptr;
    if (devicePresent(kNandEnv)) {
        chosen = kNandEnv;
        if (mVoice == Voice::StandardOutput)
            std::printf("use nand env\npartition name: %s\n", chosen);
    } else if (devicePresent(kBlockEnv)) {
        chosen = kBlockEnv;
        if (mVoice == Voice::StandardOutput)
            std::printf("use block env\npartition name: %s\n", chosen);
    } else if (devicePresent(kByNameEnv)) {
        chosen = kByNameEnv;
        if (mVoice == Voice::StandardOutput)
            std::printf("use block env by name\npartition name: %s\n", chosen);
    } else if (devicePresent(kByNameUbootenv)) {
        chosen = kByNameUbootenv;
        if (mVoice == Voice::StandardOutput)
            std::printf("use block uboot env\n");
    }
    if (chosen != nullptr)
        copy_field(mEnvPartitionName, sizeof mEnvPartitionName, chosen, std::strlen(chosen));

    if (chosen == kByNameUbootenv) {
        mtd_info_user info{};
        int rc;
        {
            const vexa::UniqueFd fd(vexa::os::open(mEnvPartitionName, O_RDWR));
            if (!fd) {
                ENV_E("[ubootenv] open device(%s) error\n", mEnvPartitionName);
                return -2;
            }
            rc = vexa::os::ioctl(fd.get(), MEMGETINFO, &info);
        }
        // A size too small for the CRC or absurdly large is a broken answer.
        if (rc < 0 || info.size < 8 || info.size > kMaxImageSize) {
            ENV_E("[ubootenv] get MTD info error\n");
            return -3;
        }
        mEnvPartitionSize = info.size;
        mEnvSize = info.size - 4;
    }
    if (mVoice == Voice::StandardOutput)
        std::printf("hello %s %d\n", "init", 224);

    ENV_I("[ubootenv] using %s with size(%d) (%d)", mEnvPartitionName,
          static_cast<int>(mEnvPartitionSize), static_cast<int>(mEnvSize));

    int rc = -1;
    int attempt = 0;
    for (attempt = 1; attempt <= 5; ++attempt) {
        rc = readPartitionData();
        if (rc == 0)
            break;
        ENV_E("[ubootenv] Cannot read %s: %d.\n", mEnvPartitionName, rc);
        if (rc < -2) {
            std::free(mEnvData);
            mEnvData = nullptr;
            mEnvCrc = nullptr;
            mEnvBuf = nullptr;
        }
    }
    // A read that only worked on the last attempt is not trusted: the device
    // is failing and a save could make it worse.
    if (rc == 0 && attempt <= 4) {
        if (mVoice == Voice::StandardOutput)
            std::printf("[ubootenv] read %s success \n", mEnvPartitionName);
        propertyLoad();
        return 0;
    }
    ENV_E("[ubootenv] read %s failed \n", mEnvPartitionName);
    return -2;
}

int EnvStore::readPartitionData()
{
    const vexa::UniqueFd owner(vexa::os::open(mEnvPartitionName, O_RDONLY));
    const int fd = owner.get();
    if (!owner) {
        ENV_E("[ubootenv] open devices error: %s\n", std::strerror(errno));
        return -1;
    }
    if (!allocateImage()) {
        ENV_E("[ubootenv] Not enough memory for environment (%u bytes)\n", mEnvPartitionSize);
        return -2;
    }

    ssize_t n = read_fully(fd, mEnvData, mEnvPartitionSize);
    if (n == static_cast<ssize_t>(mEnvPartitionSize)) {
        const uint32_t saved = stored_crc(mEnvData);
        const uint32_t calc = data_crc(mEnvBuf, mEnvSize);
        if (saved == calc) {
            parseAttribute();
            return 0;
        }
        ENV_E2("[ubootenv] CRC Check SYS_LOGE save_crc=%08x, crcCalc = %08x \n",
               "[ubootenv] CRC Check printf save_crc=%08x, crcCalc = %08x \n", saved, calc);
    } else {
        ENV_E("[ubootenv] read error 0x%x \n", static_cast<unsigned>(n));
    }

    ENV_I("first env error, try second....\n");
    const off_t where = vexa::os::lseek(fd, kSecondCopy, SEEK_SET);
    if (where != kSecondCopy)
        ENV_E("[ubootenv] lseek error, seeknum = %d \n", static_cast<int>(where));
    // The second copy is read as 65536 bytes; a smaller image reads only what
    // its buffer holds.
    n = read_fully(fd, mEnvData, std::min<size_t>(kSecondCopy, mEnvPartitionSize));
    if (n == static_cast<ssize_t>(mEnvPartitionSize)) {
        const uint32_t saved = stored_crc(mEnvData);
        const uint32_t calc = data_crc(mEnvBuf, mEnvSize);
        if (saved != calc) {
            ENV_E2("[ubootenv] CRC2 Check SYS_LOGE save_crc=%08x, crcCalc = %08x \n",
                   "[ubootenv] CRC2 Check printf save_crc=%08x, crcCalc = %08x \n", saved, calc);
            return -3;
        }
    }
    // Anything else, a short second copy included, is taken as it stands.
    parseAttribute();
    return 0;
}

void EnvStore::parseAttribute()
{
    freeEntries();
    if (mEnvBuf == nullptr)
        return;
    const char *p = mEnvBuf;
    const char *const end = mEnvBuf + mEnvSize;
    Ubootenv::Attribute *entry = &mEnvAttrHeader;
    while (p < end) {
        const size_t len = strnlen(p, static_cast<size_t>(end - p));
        const char *eq = static_cast<const char *>(std::memchr(p, '=', len));
        if (eq != nullptr) {
            copy_field(entry->key, kKeyMax, p, static_cast<size_t>(eq - p));
            copy_field(entry->value, kValueMax, eq + 1, len - static_cast<size_t>(eq - p) - 1);
        } else {
            ENV_E("[ubootenv] error need '=' skip this value\n");
        }
        const char *next = p + len + 1;
        if (next >= end || *next == '\0')
            break;
        Ubootenv::Attribute *added = new (std::nothrow) Ubootenv::Attribute();
        if (added == nullptr) {
            ENV_E("[ubootenv] parse attribute malloc error \n");
            break;
        }
        entry->next = added;
        entry = added;
        p = next;
    }
}

void EnvStore::formatAttribute()
{
    if (mEnvBuf == nullptr)
        return;
    std::memset(mEnvBuf, 0, mEnvSize);
    size_t cursor = 0;
    for (const Ubootenv::Attribute *entry = &mEnvAttrHeader; entry != nullptr; entry = entry->next) {
        const size_t key_len = strnlen(entry->key, kKeyMax - 1);
        const size_t value_len = strnlen(entry->value, kValueMax - 1);
        const size_t len = key_len + 1 + value_len;
        if (len <= 2) {
            ENV_E("[ubootenv] Invalid env data key:%.*s, value:%.*s\n", static_cast<int>(key_len),
                  entry->key, static_cast<int>(value_len), entry->value);
            continue;
        }
        // Keep room for the text's NUL and the empty string that ends the list.
        if (cursor + len + 2 > mEnvSize) {
            ENV_E("[ubootenv] env data full, dropping key:%.*s\n", static_cast<int>(key_len),
                  entry->key);
            continue;
        }
        std::memcpy(mEnvBuf + cursor, entry->key, key_len);
        mEnvBuf[cursor + key_len] = '=';
        std::memcpy(mEnvBuf + cursor + key_len + 1, entry->value, value_len);
        cursor += len + 1;
    }
}

int EnvStore::propertyLoad()
{
    ENV_E("[ubootenv] set property count: %d\n", 0);
    mEnvInitDone = 1;
    return 0;
}

const char *EnvStore::get(const char *key)
{
    if (!mEnvInitDone) {
        ENV_E("[ubootenv] don't init done\n");
        return nullptr;
    }
    if (key == nullptr)
        return nullptr;
    for (const Ubootenv::Attribute *entry = &mEnvAttrHeader; entry != nullptr; entry = entry->next) {
        if (std::strcmp(entry->key, key) == 0)
            return entry->value;
    }
    return nullptr;
}

int EnvStore::set(const char *key, const char *value, bool createNew)
{
    if (key == nullptr)
        return 0;
    if (std::strchr(key, '=') != nullptr) {
        ENV_E("[ubootenv] %s is not a valid variable name: it holds '='\n", key);
        return 0;
    }
    if (value == nullptr)
        value = "";
    // Compare and store the key as the entry holds it.
    char wanted[kKeyMax];
    copy_field(wanted, sizeof wanted, key, std::strlen(key));
    Ubootenv::Attribute *last = &mEnvAttrHeader;
    for (Ubootenv::Attribute *entry = &mEnvAttrHeader; entry != nullptr; entry = entry->next) {
        if (std::strcmp(entry->key, wanted) == 0) {
            copy_field(entry->value, kValueMax, value, std::strlen(value));
            return 2;
        }
        last = entry;
    }
    if (!createNew)
        return 0;
    if (mVoice == Voice::StandardOutput) {
        std::printf("[ubootenv] ubootenv.var.%s not found, create it.\n", wanted);
        std::fflush(stdout);
    }
    Ubootenv::Attribute *added = new (std::nothrow) Ubootenv::Attribute();
    if (added == nullptr)
        return 0;
    copy_field(added->key, kKeyMax, wanted, std::strlen(wanted));
    copy_field(added->value, kValueMax, value, std::strlen(value));
    last->next = added;
    return 1;
}

bool EnvStore::isEnv(const char *name)
{
    return name != nullptr && name[0] != '\0' && std::strncmp(name, kPrefix, kPrefixLen) == 0 &&
           std::strlen(name) > kPrefixLen;
}

const char *EnvStore::getValue(const char *name)
{
    if (isEnv(name)) {
        Hold hold(mEnvLock);
        return get(name + kPrefixLen);
    }
    ENV_E("[ubootenv] %s is not a ubootenv variable and need prefix:ubootenv.var.xxx\n",
          name ? name : "(null)");
    printValues();
    return nullptr;
}

int EnvStore::updateValue(const char *name, const char *value)
{
    if (!mEnvInitDone) {
        ENV_E("[ubootenv] bootenv do not init\n");
        return -1;
    }
    if (value == nullptr)
        value = "";
    ENV_I("[ubootenv] update value name [%s]: value [%s] \n", name ? name : "(null)", value);

    const char *key = nullptr;
    if (name != nullptr && std::strcmp(name, "ubootenv.var.bootcmd") == 0) {
        key = "bootcmd";
    } else if (isEnv(name)) {
        key = name + kPrefixLen;
    } else {
        ENV_E("[ubootenv] %s is not a ubootenv variable.\n", name ? name : "(null)");
        return -2;
    }

    // A '=' in the name would end the name early in the partition's
    // "name=value" text and leave a second record of another name.
    if (std::strchr(key, '=') != nullptr) {
        ENV_E("[ubootenv] %s is not a valid variable name: it holds '='\n", name);
        return -1;
    }

    // The value as an entry can hold it, so that an over-long value that is
    // already stored counts as unchanged.
    const std::string wanted(value, strnlen(value, kValueMax - 1));
    Hold hold(mEnvLock);
    // Other writers (another store of this process, another process) may
    // have saved since this store read the partition: the update starts from
    // what the partition holds now, under the lock every writer takes, so
    // that no writer's work is saved over.
    const PartitionLock partition(mEnvPartitionName);
    refresh();
    const char *current = get(key);
    if (wanted == (current ? current : ""))
        return 0;

    set(key, wanted.c_str(), true);
    int rc = -1;
    int attempt = 0;
    for (attempt = 1; attempt <= 5; ++attempt) {
        rc = save();
        if (rc == 0)
            break;
        ENV_E("[ubootenv] Cannot write %s: %d.\n", mEnvPartitionName, rc);
    }
    if (rc == 0 && (mVoice == Voice::StandardOutput || attempt < 5))
        ENV_E("[ubootenv] Save ubootenv to %s succeed!\n", mEnvPartitionName);
    return rc;
}

int EnvStore::save()
{
    if (mEnvData == nullptr && !allocateImage()) {
        // Nothing read yet and no memory to build the image from the entries.
        ENV_E("[ubootenv] Out of memory!!!\n");
        return -5;
    }
    formatAttribute();
    const uint32_t crc = data_crc(mEnvBuf, mEnvSize);
    std::memcpy(mEnvData, &crc, sizeof crc);

    const vexa::UniqueFd owner(vexa::os::open(mEnvPartitionName, O_RDWR));
    if (!owner) {
        ENV_E("[ubootenv] open devices error\n");
        return -1;
    }
    if (std::strstr(mEnvPartitionName, "mtd") != nullptr)
        return writeMtdCopies(owner.get());
    return writeCopies(owner.get());
}

int EnvStore::writeCopies(int fd)
{
    const size_t image = mEnvPartitionSize;
    // An image larger than the gap between the copies would put its second
    // copy over its first: it is stored once.
    const bool twice = image <= static_cast<size_t>(kSecondCopy);
    const bool second_first = twice && second_copy_first(fd, image);
    const off_t order[2] = {second_first ? kSecondCopy : 0, second_first ? 0 : kSecondCopy};
    for (int i = 0; i < (twice ? 2 : 1); ++i) {
        const off_t where = vexa::os::lseek(fd, order[i], SEEK_SET);
        if (order[i] == kSecondCopy && where != kSecondCopy)
            SAVE_E("[ubootenv] lseek error, seek num = %d \n", static_cast<int>(where));
        // The copy is on the medium before the other one is touched.
        if (!write_fully(fd, mEnvData, image) || vexa::os::fsync(fd) != 0) {
            SAVE_E2("[ubootenv] SYS_LOGE write, size %d \n", "[ubootenv] printf write, size %d \n",
                    static_cast<int>(image));
            return -3;
        }
    }
    return 0;
}

int EnvStore::writeMtdCopies(int fd)
{
    const size_t image = mEnvPartitionSize;
    mtd_info_user info{};
    if (vexa::os::ioctl(fd, MEMGETINFO, &info) < 0) {
        SAVE_E("[ubootenv] Get MTD info error\n");
        return -4;
    }
    const uint32_t block = info.erasesize;
    const size_t span = block ? (image + block - 1) / block * block : 0;
    // Copies whose erase blocks are their own are erased and written one at
    // a time, so that one of them is whole at any moment; what lies beyond
    // them is never touched. A program write of a flash device is on the
    // medium when it returns.
    if (block != 0 && kSecondCopy % block == 0 && span <= static_cast<size_t>(kSecondCopy) &&
        kSecondCopy + span <= info.size) {
        const bool second_first = second_copy_first(fd, image);
        const off_t order[2] = {second_first ? kSecondCopy : 0, second_first ? 0 : kSecondCopy};
        for (const off_t at : order) {
            erase_info_user erase{static_cast<uint32_t>(at), static_cast<uint32_t>(span)};
            const int erased = vexa::os::ioctl(fd, MEMERASE, &erase);
            if (erased < 0) {
                SAVE_E2("[ubootenv] MEMERASE SYS_LOGE %d\n", "[ubootenv] MEMERASE printf %d\n", erased);
                return -2;
            }
            const off_t where = vexa::os::lseek(fd, at, SEEK_SET);
            if (where != at) {
                SAVE_E("[ubootenv] can not lseek, seek num = %d \n", static_cast<int>(where));
                return -7;
            }
            if (!write_fully(fd, mEnvData, image)) {
                SAVE_E2("[ubootenv] SYS_LOGE write, size %d \n", "[ubootenv] printf write, size %d \n",
                        static_cast<int>(image));
                return -3;
            }
        }
        return 0;
    }

    // Erase blocks shared by both copies: the device is erased and written
    // whole, keeping what lies beyond the copies.
    std::unique_ptr<uint8_t[]> whole;
    erase_info_user erase{0, static_cast<uint32_t>(2 * image)};
    if (info.size > 2 * image) {
        whole.reset(new (std::nothrow) uint8_t[info.size]);
        if (!whole) {
            SAVE_E("[ubootenv] Out of memory!!!\n");
            return -5;
        }
        if (vexa::os::lseek(fd, 0, SEEK_SET) != 0 ||
            read_fully(fd, whole.get(), info.size) != static_cast<ssize_t>(info.size)) {
            SAVE_E("[ubootenv] Read access failed !!!\n");
            return -6;
        }
        std::memcpy(whole.get(), mEnvData, image);
        if (info.size > kSecondCopy)
            std::memcpy(whole.get() + kSecondCopy, mEnvData,
                        std::min<size_t>(image, info.size - kSecondCopy));
        erase.length = info.size;
    }
    const int erased = vexa::os::ioctl(fd, MEMERASE, &erase);
    if (erased < 0) {
        SAVE_E2("[ubootenv] MEMERASE SYS_LOGE %d\n", "[ubootenv] MEMERASE printf %d\n", erased);
        return -2;
    }
    bool written;
    if (whole) {
        if (vexa::os::lseek(fd, 0, SEEK_SET) != 0) {
            SAVE_E2("%s() %d: err is %d\n", "%s() %d: err is %d\n", "save", __LINE__, errno);
            return -7;
        }
        written = write_fully(fd, whole.get(), info.size);
    } else {
        // Both copies, each cut at the end of the device.
        written = true;
        for (const off_t at : {off_t{0}, kSecondCopy}) {
            const off_t where = vexa::os::lseek(fd, at, SEEK_SET);
            if (where != at)
                SAVE_E("[ubootenv] can not lseek, seek num = %d \n", static_cast<int>(where));
            const size_t room = info.size > static_cast<uint32_t>(at) ? info.size - at : 0;
            written = written && write_fully(fd, mEnvData, std::min(image, room));
        }
    }
    if (!written) {
        SAVE_E2("[ubootenv] SYS_LOGE write, size %d \n", "[ubootenv] printf write, size %d \n",
                static_cast<int>(image));
        return -3;
    }
    return 0;
}

void EnvStore::printValues()
{
    for (const Ubootenv::Attribute *entry = &mEnvAttrHeader; entry != nullptr; entry = entry->next)
        ENV_I("[ubootenv] key: [%s], value: [%s]\n", entry->key, entry->value);
}

int EnvStore::dump(int fd)
{
    int rc = 0;
    std::string line;
    for (const Ubootenv::Attribute *entry = &mEnvAttrHeader; entry != nullptr; entry = entry->next) {
        line = "[ubootenv] key: [";
        line += entry->key;
        line += "], value: [";
        line += entry->value;
        line += "]\n";
        rc = static_cast<int>(vexa::os::write(fd, line.data(), line.size()));
    }
    return rc;
}

int EnvStore::reInit()
{
    Hold hold(mEnvLock);
    release();
    init();
    return 0;
}

} // namespace vexa::storage

// ---- the class: each member runs the store's rule over the object's fields ----

using vexa::storage::EnvStore;

Ubootenv::Ubootenv()
    : mEnvPartitionSize(kDefaultImageSize), mEnvSize(kDefaultImageSize - 4), mEnvData(nullptr),
      mEnvCrc(nullptr), mEnvBuf(nullptr), mEnvInitDone(0)
{
    std::memset(mEnvPartitionName, 0, sizeof mEnvPartitionName);
    std::memset(&mEnvAttrHeader, 0, sizeof mEnvAttrHeader);
    init();
}

Ubootenv::~Ubootenv() { EnvStore(*this).release(); }

int Ubootenv::init() { return EnvStore(*this).init(); }
int Ubootenv::readPartitionData() { return EnvStore(*this).readPartitionData(); }
void Ubootenv::parseAttribute() { EnvStore(*this).parseAttribute(); }
void Ubootenv::formatAttribute() { EnvStore(*this).formatAttribute(); }
int Ubootenv::propertyLoad() { return EnvStore(*this).propertyLoad(); }
const char *Ubootenv::get(const char *key) { return EnvStore(*this).get(key); }
int Ubootenv::set(const char *key, const char *value, bool createNew)
{
    return EnvStore(*this).set(key, value, createNew);
}
bool Ubootenv::isEnv(const char *name) { return EnvStore(*this).isEnv(name); }
const char *Ubootenv::getValue(const char *name) { return EnvStore(*this).getValue(name); }
int Ubootenv::updateValue(const char *name, const char *value)
{
    return EnvStore(*this).updateValue(name, value);
}
int Ubootenv::save() { return EnvStore(*this).save(); }
void Ubootenv::printValues() { EnvStore(*this).printValues(); }
int Ubootenv::dump(int fd) { return EnvStore(*this).dump(fd); }
int Ubootenv::reInit() { return EnvStore(*this).reInit(); }
