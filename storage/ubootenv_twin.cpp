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

extern "C" {

VEXA_API int32_t ubootenv_init(void)
{
    UbootenvTwin::clearPath();
    return UbootenvTwin::store().init();
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
