/* Export mark of the library's interface: everything else is hidden. */
#ifndef VEXASDK_EXPORT_H
#define VEXASDK_EXPORT_H

#define VEXA_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define VEXA_EXTERN_C_BEGIN extern "C" {
#define VEXA_EXTERN_C_END }
#else
#define VEXA_EXTERN_C_BEGIN
#define VEXA_EXTERN_C_END
#endif

#endif
