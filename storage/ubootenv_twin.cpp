// The exported C form of the U-Boot environment store: one module-wide store
// that prints to standard output.
#include <cstring>

#include "vexasdk/Ubootenv.h"
#include "vexasdk/storage.h"

extern "C" VEXA_API const char *const PROFIX_UBOOTENV_VAR = "ubootenv.var.";

// The module-wide store. Its fields carry the names the store's state is known
// by (mEnvPartitionName, mEnvData, mEnvAttrHeader, mEnvLock, mEnvInitDone...).
struct UbootenvTwin {
    static Ubootenv &store()
    {
        static Ubootenv env(Ubootenv::Voice::StandardOutput);
        return env;
    }
    static void clearPath() { std::memset(store().mEnvPartitionName, 0, sizeof store().mEnvPartitionName); }
    static void destroy() { store().release(); }
};

// The twin's own operations, one per member of the class. They stay inside
// the library: short names such as init and save would clash with the
// caller's own symbols.
namespace vexa::ubootenv {

int init() { return UbootenvTwin::store().init(); }
int read_partition_data() { return UbootenvTwin::store().readPartitionData(); }
void parse_attribute() { UbootenvTwin::store().parseAttribute(); }
void format_attribute() { UbootenvTwin::store().formatAttribute(); }
int property_load() { return UbootenvTwin::store().propertyLoad(); }
bool is_env(const char *name) { return UbootenvTwin::store().isEnv(name); }
const char *get_value(const char *key) { return UbootenvTwin::store().get(key); }
int set_value(const char *key, const char *value, bool create) { return UbootenvTwin::store().set(key, value, create); }
int save() { return UbootenvTwin::store().save(); }

} // namespace vexa::ubootenv

extern "C" {

VEXA_API int32_t ubootenv_init(void)
{
    UbootenvTwin::clearPath();
    return vexa::ubootenv::init();
}

VEXA_API void ubootenv_destroy(void)
{
    UbootenvTwin::destroy();
}

VEXA_API int32_t ubootenv_update_value(const char *name, const char *value)
{
    return UbootenvTwin::store().updateValue(name, value);
}

VEXA_API const char *ubootenv_get_value(const char *name)
{
    return UbootenvTwin::store().getValue(name);
}

VEXA_API void ubootenv_print_values(void)
{
    UbootenvTwin::store().printValues();
}

VEXA_API int32_t ubootenv_dump(int32_t fd)
{
    return UbootenvTwin::store().dump(fd);
}

VEXA_API int32_t ubootenv_reinit(void)
{
    return UbootenvTwin::store().reInit();
}

} // extern "C"
