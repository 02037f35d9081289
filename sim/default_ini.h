#ifndef VEXA_SIM_DEFAULT_INI_H
#define VEXA_SIM_DEFAULT_INI_H

namespace vexa::sim {

// The text of the default board's "/vendor/etc/product.ini".
const char *default_product_ini();

} // namespace vexa::sim

#endif
