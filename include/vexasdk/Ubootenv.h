// The U-Boot environment store, as a C++ class.
//
// The boot loader keeps its variables in an environment partition: a CRC-32
// protected block of NUL-terminated "key=value" strings, stored twice (at
// offset 0 and at offset 65536). A Ubootenv object reads the partition into a
// list of entries, answers lookups, changes or adds variables and writes both
// copies back. Callers name variables with the prefix "ubootenv.var."
// (PROFIX_UBOOTENV_VAR in vexasdk/storage.h); the partition stores the names
// without it. The exported C functions ubootenv_* in vexasdk/storage.h are the
// same store over one module-wide object.
//
// Device: the first that exists of "/dev/nand_env", "/dev/block/env",
// "/dev/block/by-name/env" and "/dev/block/by-name/ubootenv". The image size
// is 65536, or for "/dev/block/by-name/ubootenv" the size its MEMGETINFO
// reports.
//
// Power loss. A save never leaves the partition without a valid copy, however
// often the power goes during saves, and it reports a save that did not reach
// the medium:
// - each copy is written whole and flushed (fsync) before the other copy is
//   touched, so that the kernel cannot write the two back interleaved;
// - when the first copy is valid and the second is not an identical copy of
//   it (bad after a cut save, or older), the second copy is written first:
//   the copy that loading would pick is always the last one touched;
// - a short write or a failed flush fails the save with -3 ("SYS_LOGE write"
//   message), whichever copy it hit, and the other copy is then left alone.
// Saves that lose nothing keep their layout, results and messages. An image
// larger than 65536 bytes (the by-name "ubootenv" device, whose MEMGETINFO
// size is the whole device) would put its second copy over its first: only
// the first copy is written then, so such a device has nothing to fall back
// on. On a memory-technology device each copy's erase blocks are erased and
// written in the same order; only erase blocks larger than 64 KiB, which hold
// parts of both copies, leave the erase-everything-then-write window.
//
// Several writers. Every store of the partition, in this process or another,
// takes one lock while it updates: an advisory lock (flock) on the device.
// Under it updateValue() reads the partition afresh and merges what other
// writers saved into its entries (a changed value is copied into its entry in
// place, an added variable is appended, a removed one leaves the list) before
// it sets its own variable and saves. So a store's copy in memory, read once
// at init, is never saved over newer work, and every writer's last update
// stays. When neither copy on the medium is valid the store saves its own
// entries, as a single writer always has. The lookups (get, getValue) answer
// from the copy in memory, as of the last init or update.
//
// Names. A name whose variable part holds '=' cannot be stored: the
// partition's "name=value" text would read back as another name and value
// ("bootdelay=9;reset" would leave a second bootdelay). updateValue() refuses
// it with -1 and set() with 0, each with the error message "[ubootenv] NAME is
// not a valid variable name: it holds '='", and nothing is written. An empty
// variable part ("ubootenv.var.") is not a variable at all (-2).
//
// Errors: every member returns the codes listed at it and logs under the tag
// "Ubootenv". Each message begins "[Ubootenv.cpp, <member>, <line>] ".
// Messages are filtered by the property "persist.vendor.sc.log.level"
// (default "4"), read before each message: error messages appear while it is
// below 7, information messages while it is below 5. Bad partition contents
// never overrun a field: keys are cut to 255 characters and values to 4095;
// entries that no longer fit the data area when it is rebuilt are dropped
// with an error message.
//
// Threads: one mutex per object guards updateValue(), getValue() and
// reInit(); these may be called from several threads at once. get(), set(),
// save(), printValues() and dump() take no lock: call them from one thread or
// under your own lock. A value pointer returned by get() or getValue() points
// into the entry: it stays valid until reInit() or destruction, and its text
// changes in place when the same variable is updated (by this store, or by
// another writer whose save an update of this store takes in).
#ifndef VEXASDK_UBOOTENV_H
#define VEXASDK_UBOOTENV_H

#include <cstdint>
#include <mutex>

#include "vexasdk/export.h"
#include "vexasdk/storage.h"

namespace vexa::storage {
class EnvStore;
}

class VEXA_API Ubootenv {
public:
    // One variable of the environment. Entries keep the partition's order;
    // new keys are appended at the tail.
    using Attribute = ubootenv_attribute;

    // Clears the path and the lock, then runs init().
    Ubootenv();
    // Frees the image and every entry.
    ~Ubootenv();
    Ubootenv(const Ubootenv &) = delete;
    Ubootenv &operator=(const Ubootenv &) = delete;

    // Picks the device and reads it (up to five attempts; a success counts
    // only within the first four). 0; -2 device cannot be opened or no copy
    // read; -3 MEMGETINFO failed.
    int init();
    // Reads the first copy, or the second when the first is short or has a
    // bad CRC. 0; -1 open failed; -2 out of memory; -3 second copy has a bad
    // CRC. A short second copy is parsed as it stands.
    int readPartitionData();
    // Rebuilds the entry list from the data area.
    void parseAttribute();
    // Rebuilds the data area from the entry list ("key=value" texts of at
    // most 2 characters are dropped).
    void formatAttribute();
    // Logs the property count (always 0) and marks the store initialised.
    int propertyLoad();
    // The value of key (without prefix), or null when absent or before init.
    const char *get(const char *key);
    // Sets key (without prefix) to value: 2 replaced; 1 created (createNew);
    // 0 absent and not created, or a key holding '='.
    int set(const char *key, const char *value, bool createNew);
    // True for a non-empty name that begins with "ubootenv.var." and is
    // longer than the prefix.
    bool isEnv(const char *name);
    // The value of a prefixed name, or null (an unprefixed name logs every
    // entry).
    const char *getValue(const char *name);
    // Sets a prefixed name and saves (up to five attempts), starting from the
    // partition as other writers left it (see "Several writers"). 0 unchanged
    // or saved; -1 not initialised, or a name holding '='; -2 not a variable;
    // otherwise the last save() result.
    int updateValue(const char *name, const char *value);
    // Writes both copies, each flushed before the other is touched (see
    // "Power loss" above). 0; -1 open failed; -2 erase failed; -3 write or
    // flush failed; -4 MEMGETINFO failed; -5 out of memory; -6 read-back
    // failed; -7 seek failed.
    int save();
    // Logs every entry.
    void printValues();
    // Writes every entry to fd as "[ubootenv] key: [K], value: [V]\n";
    // returns the last write's result (0 with no entries).
    int dump(int fd);
    // Under the lock frees the image and the entries and runs init(); 0.
    int reInit();

private:
    friend class vexa::storage::EnvStore;

    char mEnvPartitionName[32];
    uint32_t mEnvPartitionSize;
    uint32_t mEnvSize;
    uint8_t *mEnvData;   // image buffer, owned
    uint32_t *mEnvCrc;   // offset 0 of the image
    char *mEnvBuf;       // offset 4 of the image: the data area
    Attribute mEnvAttrHeader;
    std::mutex mEnvLock;
    uint8_t mEnvInitDone;
};

#endif
