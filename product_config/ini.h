// INI accessors of the product configuration (internal).
#ifndef VEXA_PRODUCT_CONFIG_INI_H
#define VEXA_PRODUCT_CONFIG_INI_H

#include <cstddef>
#include <cstdint>

namespace vexa::config {

// An iniparser dictionary, or null (after "cannot parse file: PATH" on
// standard error).
void *load_ini(const char *path);
void free_ini(void *dict);

// Lookups of "section:key"; -1 (-1.0) for a missing key or a null dictionary.
int32_t get_int(void *dict, const char *section, const char *key);
double get_double(void *dict, const char *section, const char *key);
int32_t get_boolean(void *dict, const char *section, const char *key);
// Copies the value or "UNDEF" into dst of cap bytes, cutting a longer value
// (logged); returns 0, or -1 for a null dictionary (dst untouched).
int32_t get_string(void *dict, const char *section, const char *key, char *dst, size_t cap);

} // namespace vexa::config

#endif
