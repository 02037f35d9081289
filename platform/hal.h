// The maker's closed hardware-abstraction libraries (libvexahal, libvexahalcbb,
// libvexahalcommon, libvexasdkcommon) as this library calls them.
//
// On the device these symbols come from the maker's libraries; on a host the
// virtual board (libvexaboard) provides them. The library never defines them.
#ifndef VEXA_PLATFORM_HAL_H
#define VEXA_PLATFORM_HAL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Product information: fills a caller-zeroed 2048-byte record; the module id
 * stands at byte 64 as decimal text. 0 on success. */
#define HAL_PRODUCT_INFO_SIZE 2048
#define HAL_PRODUCT_INFO_MODID_OFFSET 64
int hal_info_get_product_info(char *buffer);

/* GPIO lines: negative on failure. */
int hal_gpio_set_value(int gpio_id, int value);
int hal_gpio_get_value(int gpio_id);
int64_t hal_gpio_config(int gpio_id, int a, int value, int b, int c, int d);

/* Serial lines: open returns a descriptor (> 0 on success). */
int hal_serial_open(const char *path, int baudrate, unsigned int databits,
                    unsigned int stopbits, char parity);
int hal_serial_write(int fd, const void *buf, int len);
int hal_serial_blocking_read(int fd, void *buf, int len, int timeout);
int hal_serial_nonblocking_read(int fd, void *buf, int len);
int hal_serial_close(int fd);

/* Raw block devices or files, at a byte offset; negative on failure. */
int hal_block_read(const char *path, uint32_t offset, void *buf, uint32_t len);
int hal_block_write(const char *path, uint32_t offset, const void *buf, uint32_t len);

/* Numbered vendor-storage items; the two words are passed through. */
int hal_vendor_storage_read(int item, void *buf, uint32_t a, uint32_t b);
int hal_vendor_storage_write(int item, const void *buf, uint32_t a, uint32_t b);

/* sysfs-style text files. */
int hal_sys_read(const char *path, char *buf, int size);
int hal_sys_write(const char *path, const char *text, int len);

/* I2C register access; negative on failure. */
int hal_i2c_reg_read(const char *path, uint8_t dev_addr, uint8_t reg_addr, uint8_t *out);
int hal_i2c_reg_write(const char *path, uint8_t dev_addr, uint8_t reg_addr, uint8_t value);

#ifdef __cplusplus
}
#endif

#endif
