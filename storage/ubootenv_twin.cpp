// The exported C form of the U-Boot environment store: one module-wide store
// that prints to standard output. Its state is the module-wide objects below,
// exported under the names the store's clients know them by.

// The short names' declarations, so that the definitions are checked against
// them.
#define VEXASDK_UBOOTENV_SHORT_NAMES
#include <cstring>

#include "storage/env_store.h"
#include "vexasdk/storage.h"

// Exported as vexasdk/storage.h declares them.
extern "C" {

const char *const PROFIX_UBOOTENV_VAR = "ubootenv.var.";

char mEnvPartitionName[32];
uint32_t mEnvPartitionSize = 65536;
uint32_t mEnvSize = 65532;
uint8_t *mEnvData;
ubootenv_attribute mEnvAttrHeader;
pthread_mutex_t mEnvLock = PTHREAD_MUTEX_INITIALIZER;
uint8_t mEnvInitDone;

} // extern "C"

namespace {

// The CRC and data pointers into mEnvData.
uint32_t *g_env_crc;
char *g_env_buf;

vexa::storage::EnvStore twin()
{
    return vexa::storage::EnvStore(mEnvPartitionName, mEnvPartitionSize, mEnvSize, mEnvData,
                                   g_env_crc, g_env_buf, mEnvAttrHeader, mEnvLock, mEnvInitDone,
                                   vexa::storage::EnvStore::Voice::StandardOutput);
}

} // namespace

extern "C" {

VEXA_API int32_t ubootenv_init(void)
{
    std::memset(mEnvPartitionName, 0, sizeof mEnvPartitionName);
    return twin().init();
}

VEXA_API void ubootenv_destroy(void) { twin().release(); }

VEXA_API int32_t ubootenv_update_value(const char *name, const char *value)
{
    return twin().updateValue(name, value);
}

VEXA_API const char *ubootenv_get_value(const char *name) { return twin().getValue(name); }

VEXA_API void ubootenv_print_values(void) { twin().printValues(); }

VEXA_API int32_t ubootenv_dump(int32_t fd) { return twin().dump(fd); }

VEXA_API int32_t ubootenv_reinit(void) { return twin().reInit(); }

// The lower operations under their short names. The library never calls
// these names itself, so a program's own symbols of the same names change
// nothing inside it.
VEXA_API int32_t init(void) { return twin().init(); }
VEXA_API int32_t is_env(const char *name) { return twin().isEnv(name) ? 1 : 0; }
VEXA_API const char *get_value(const char *key) { return twin().get(key); }
VEXA_API int32_t set_value(const char *key, const char *value, int32_t create)
{
    return twin().set(key, value, create != 0);
}
VEXA_API int32_t save(void) { return twin().save(); }
VEXA_API int32_t read_partition_data(void) { return twin().readPartitionData(); }
VEXA_API int32_t property_load(void) { return twin().propertyLoad(); }
VEXA_API void parse_attribute(void) { twin().parseAttribute(); }
VEXA_API void format_attribute(void) { twin().formatAttribute(); }

} // extern "C"
