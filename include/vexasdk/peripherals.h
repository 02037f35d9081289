/*
 * Board peripherals.
 *
 * GPIO-driven switches and indicators: lamps, relays, power lines, the OPS
 * slot, the USB port selector and the simple fan. Each operation takes its
 * line from the product record (bi_product, see product_config.h), judges the
 * id and calls the HAL.
 *
 * Errors: -1 when the record is missing or the line's id is refused, after an
 * error line in the log ("...invaild <entry>.gpio_id is <id>, need to check
 * ini file."); otherwise the HAL's result unchanged, so a HAL failure comes
 * back as its own negative value. Reads return the level (0 or 1).
 * Most members accept ids above 0. The switch lamp, the LoRa input and the
 * simple fan accept 1 to 998. The interior relay and the two 4G lines accept
 * every id below 1000 but 0, so a missing key (-1) reaches the HAL as line -1.
 * When the record itself is missing, the id printed is -1.
 *
 * Threads: no locking; call from any thread once the record is loaded.
 */
#ifndef VEXASDK_PERIPHERALS_H
#define VEXASDK_PERIPHERALS_H

#include <stdint.h>

#include "vexasdk/export.h"

VEXA_EXTERN_C_BEGIN

/* ---- GPIO-driven switches and indicators ---- */

/* Lamps: state 1 lights, 0 darkens (passed to the HAL unchanged). */
VEXA_API int32_t bi_sysled_set_state(int32_t state);   /* also prints the line on standard output */
VEXA_API int32_t bi_sysled_get_state(void);
VEXA_API int32_t bi_netled_set_state(int32_t state);
VEXA_API int32_t bi_netled_get_state(void);
VEXA_API int32_t bi_4gled_set_state(int32_t state);
VEXA_API int32_t bi_4gled_get_state(void);
VEXA_API int32_t bi_position_led_set_state(int32_t state);
VEXA_API int32_t bi_position_led_get_state(void);
VEXA_API int32_t bi_switchled_set_state(int32_t state);
VEXA_API int32_t bi_switchled_get_state(void);
VEXA_API int32_t bi_runningled_set_state(int32_t state);
VEXA_API int32_t bi_runningled_get_state(void);
VEXA_API int32_t bi_cloudled_set_state(int32_t state);
VEXA_API int32_t bi_cloudled_get_state(void);

/* The tri-colour lamp. The red line is active low: set drives it with the
 * negation of red. get returns 1 when the lines read red 1, green 1, blue 0
 * (red dark, green lit) and 0 otherwise, read failures included. */
VEXA_API int32_t bi_triled_set_state(int32_t red, int32_t green, int32_t blue);
VEXA_API int32_t bi_triled_get_state(void);

VEXA_API int32_t bi_factory_tools_enable(int32_t enable);
VEXA_API int32_t bi_factory_tools_get_status(void);

/* Peripheral relays 1 to 4. Another dev_num logs an error and still calls the
 * HAL with line -1, returning its result. */
VEXA_API int32_t bi_peripheral_relay_enable(int32_t dev_num, int32_t enable);
VEXA_API int32_t bi_peripheral_relay_get_status(int32_t dev_num);

VEXA_API int32_t bi_pc_ctrl_enable(int32_t enable);
VEXA_API int32_t bi_pc_ctrl_get_status(void);
VEXA_API int32_t bi_usb_sub_card_led_enable(int32_t enable);
VEXA_API int32_t bi_usb_sub_card_led_get_status(void);

/* The interior relay and the 4G module's reset and power lines. */
VEXA_API int32_t bi_relay_set_state(int32_t state);
VEXA_API int32_t bi_relay_get_state(void);
VEXA_API int32_t bi_4g_module_set_state(int32_t state);
VEXA_API int32_t bi_4g_module_get_state(void);
VEXA_API int32_t bi_4g_power_set_state(int32_t state);
VEXA_API int32_t bi_4g_power_get_state(void);

VEXA_API int32_t bi_headphone_power_set_state(int32_t state);
VEXA_API int32_t bi_headphone_power_get_state(void);
VEXA_API int32_t bi_lora_get_state(void);
VEXA_API int32_t bi_fan_simple_set_status(int32_t status);
VEXA_API int32_t bi_fan_simple_get_status(void);

/* The OPS (pluggable computer) slot. */
VEXA_API int32_t bi_ops_set_usb_port(int32_t value);
VEXA_API int32_t bi_ops_get_usb_port(void);
VEXA_API int32_t bi_ops_switch_control(int32_t value);
VEXA_API int32_t bi_ops_get_switch_state(void);
VEXA_API int32_t bi_ops_on_set_state(int32_t state);
VEXA_API int32_t bi_ops_on_get_state(void);
VEXA_API int32_t bi_ops_control_set_state(int32_t state);
VEXA_API int32_t bi_ops_control_get_state(void);
VEXA_API int32_t bi_ops_detect_get_state(void);

/* The USB port selector: usb_select_0 carries bit 0 and usb_select_1 bit 1 of
 * the port number 0..3. Set ignores the HAL's results and returns 0, also for
 * a port above 3 (which drives nothing). Get returns the port number, -1 for a
 * pair of levels that is not 0/1. These two do not test the record for null:
 * without one, both ids count as -1 and the pair is refused. */
VEXA_API int32_t bi_usb_set_switch_enable(uint32_t en_usb_id);
VEXA_API int32_t bi_usb_get_switch_enable(void);

/* Writes the number of external relays to *out and returns 0; -1 (out
 * untouched) when the record is missing or the key is missing (-1). */
VEXA_API int32_t bi_get_external_relay_number(int32_t *out);

/* Power modes: they only log that they were called and return 0. */
VEXA_API int32_t bi_power_low_power_mode(void);
VEXA_API int32_t bi_power_normal_mode(void);

/* Bits 0..63 of a 64-bit flag word; a bit number of 64 or more changes
 * nothing and reads as 0. A null word is ignored. */
VEXA_API void bi_set_bit(uint64_t *word, uint32_t n);
VEXA_API void bi_clear_bit(uint64_t *word, uint32_t n);
VEXA_API int32_t bi_get_bit(uint64_t value, uint32_t n);

/* Codec mute of the qrxx boards: status 1 sound on, 0 muted; 0 or -1. */
VEXA_API int32_t bi_set_qrxx_volume_status(int32_t status);

/* Configures a line as an output at value through the HAL; its result. */
VEXA_API int64_t gpio_config(int32_t gpio_id, int32_t value);

/* ---- end of GPIO-driven switches and indicators ---- */

/* ---- Serial ports ------------------------------------------------------
 *
 * Named ports: seven fixed ports whose tty paths come from bi_product
 * (serial_485_1, serial_485_2, serial_232_1, serial_hdmi_1, serial_lora_1,
 * serial_ttl_1, serial_ttl_2), opened through the platform's serial
 * operations. Each keeps one process-wide descriptor (0 before the first
 * open); write, read and close pass it to the platform unchecked and return
 * the platform's result. Reopening an open port does not close the old
 * descriptor. Log tag "vexa_system_bi_serial".
 *
 * Raw layer (sdk_uart_*): any tty, opened read-write without becoming the
 * controlling terminal, configured raw with termios (VMIN 0, VTIME 0: a read
 * returns what is there, possibly nothing). Messages of the raw layer go to
 * standard output.
 *
 * Errors: -1 for a missing record or path, a path of 128 bytes or more, or
 * a failed open or system call; -5 for a null buffer in sdk_uart_read/write.
 *
 * Threads: no locking; use each port from one thread at a time.
 */

/* Opens a named port: 0, or -1 (path not set, or hal_serial_open gave a
 * value of 0 or less, which is stored all the same). */
#define VEXA_SERIAL_PORT_DECLARE(name)                                                           \
    VEXA_API int32_t bi_serial_##name##_open(int32_t baudrate, uint32_t databits,               \
                                             uint32_t stopbits, char parity);                    \
    VEXA_API int32_t bi_serial_##name##_write(const void *buf, int32_t len);                     \
    VEXA_API int32_t bi_serial_##name##_blocking_read(void *buf, int32_t len, int32_t timeout);  \
    VEXA_API int32_t bi_serial_##name##_nonblocking_read(void *buf, int32_t len);                \
    VEXA_API int32_t bi_serial_##name##_close(void);
VEXA_SERIAL_PORT_DECLARE(485)
VEXA_SERIAL_PORT_DECLARE(485_2)
VEXA_SERIAL_PORT_DECLARE(232)
VEXA_SERIAL_PORT_DECLARE(hdmi)
VEXA_SERIAL_PORT_DECLARE(lora)
VEXA_SERIAL_PORT_DECLARE(ttl)
VEXA_SERIAL_PORT_DECLARE(ttl_2)
#undef VEXA_SERIAL_PORT_DECLARE

/* Opens path (O_RDWR | O_NOCTTY, then blocking). The descriptor, or -1 (a
 * descriptor whose flags could not be changed stays open). */
VEXA_API int32_t sdk_uart_open(const char *path);
/* Configures the line: a baud rate outside 300, 1200, 2400, 4800, 9600,
 * 19200, 57600, 115200, 1000000, 4000000 keeps the current speed. flow_ctrl
 * 0 none, 1 RTS/CTS, 2 the XON/XOFF bits set into the control flags (kept as
 * the boards have it). Data bits 5-8, stop bits 1-2, parity N E O S (either
 * case). 0, or -1 with nothing applied. */
VEXA_API int32_t sdk_uart_cfg(int32_t fd, int32_t baudrate, int32_t flow_ctrl, int32_t databits,
                              int32_t stopbits, char parity);
/* sdk_uart_open + sdk_uart_cfg(fd, baudrate, 0, 8, 1, 'N'). Descriptor or -1. */
VEXA_API int32_t sdk_uart_init(const char *path, int32_t baudrate);
/* One write: bytes written, -1 on error, -5 for a null buffer. */
VEXA_API int32_t sdk_uart_write(int32_t fd, const void *buf, uint32_t count);
/* One read, its result unchanged; -5 for a null buffer. */
VEXA_API int32_t sdk_uart_read(int32_t fd, void *buf, uint32_t count);
/* Closes; 0. */
VEXA_API int32_t sdk_uart_close(int32_t fd);

/* ---- end of serial ports ---- */

VEXA_EXTERN_C_END

#endif
