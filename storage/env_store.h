// The U-Boot environment store's rules, over fields that live elsewhere: the
// members of a Ubootenv object, or the module-wide objects of the exported C
// store (mEnvPartitionName, mEnvData, mEnvAttrHeader, mEnvLock, ...). One
// implementation serves both forms; only where the fields live and how the
// store speaks (the system log, or standard output) differ.
#ifndef VEXA_STORAGE_ENV_STORE_H
#define VEXA_STORAGE_ENV_STORE_H

#include <pthread.h>

#include <cstdint>

#include "vexasdk/storage.h"

class Ubootenv;

namespace vexa::storage {

class EnvStore {
public:
    enum class Voice { SystemLog, StandardOutput };

    // The fields of a Ubootenv object; it speaks to the system log.
    explicit EnvStore(Ubootenv &env);
    // Fields given one by one, for the exported C store.
    EnvStore(char (&partitionName)[32], uint32_t &partitionSize, uint32_t &size, uint8_t *&data,
             uint32_t *&crc, char *&buf, ubootenv_attribute &header, pthread_mutex_t &lock,
             uint8_t &initDone, Voice voice);

    int init();
    int readPartitionData();
    void parseAttribute();
    void formatAttribute();
    int propertyLoad();
    const char *get(const char *key);
    int set(const char *key, const char *value, bool createNew);
    bool isEnv(const char *name);
    const char *getValue(const char *name);
    int updateValue(const char *name, const char *value);
    int save();
    void printValues();
    int dump(int fd);
    int reInit();
    // Frees the image and every heap entry, clears the first entry and the
    // initialised flag.
    void release();

private:
    void freeEntries();
    // Brings the entries up to the partition's valid image as it is now,
    // keeping the entries (and the value pointers handed out) of variables
    // that are still there. Nothing changes when no copy is valid.
    void refresh();
    bool devicePresent(const char *path);
    bool allocateImage();
    int writeCopies(int fd);
    int writeMtdCopies(int fd);
    void say(int prio, const char *member, int line, const char *fmt, ...)
        __attribute__((format(printf, 5, 6)));
    void sayAs(int prio, const char *member, int line, const char *classFmt, const char *twinFmt,
               ...);

    // The names of the fields as the store has always called them.
    char (&mEnvPartitionName)[32];
    uint32_t &mEnvPartitionSize;
    uint32_t &mEnvSize;
    uint8_t *&mEnvData;
    uint32_t *&mEnvCrc;
    char *&mEnvBuf;
    ubootenv_attribute &mEnvAttrHeader;
    pthread_mutex_t &mEnvLock;
    uint8_t &mEnvInitDone;
    Voice mVoice;
};

} // namespace vexa::storage

#endif
