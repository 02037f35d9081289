/*
 * MCU link: the framed request packets sent to the board MCU, the MCU's UART
 * for the firmware-update flow, the raw serial layer of the ROM-bootloader
 * flasher, the GPIO-pulsed MCU watchdog, the firmware version check and
 * update flow, and the flasher itself (ST USART bootloader protocol, with the
 * GD32 product-id command).
 *
 * Errors: results are signed 32-bit codes as listed per function; nothing
 * throws. The frame layer logs under "vexa_system_hidl_service", the
 * watchdog under "vexa_system_bi_watchdog", everything else under
 * "vexa_system_fw_update".
 *
 * Threads: nothing here locks. Shared state: the frame label counter
 * g_n_lable and the module-wide descriptor of the raw serial layer
 * (mcu_serial_init .. mcu_serial_close); send on the MCU line from one thread
 * at a time. bi_mcu_watchdog_start_feed starts a detached feeder thread that
 * runs until the process ends; it is the only thread the library starts.
 *
 * Waiting for the MCU: every bounded wait (the version answer, bootloader
 * acknowledges) polls the descriptor for input instead of sleeping before
 * the read, so an answer that has arrived is taken at once; the time-outs
 * are the upper bounds.
 */
#ifndef VEXASDK_MCU_H
#define VEXASDK_MCU_H

#include <stdint.h>

#include "vexasdk/export.h"

VEXA_EXTERN_C_BEGIN

/* ---- Frames ---------------------------------------------------------- */

/* Frame head (bytes 0x55 0xBB on the wire), header and checksum sizes. */
#define VEXA_PACKET_HEAD 0xBB55u
#define VEXA_PACKET_HEADER_LENGTH 30u
#define VEXA_PACKET_CHECKSUM_LENGTH 2u
/* The frame buffer of one request: a request carries at most
 * VEXA_PACKET_MAX_DATA data bytes; vexa_request refuses longer data with a
 * logged error and -1. */
#define VEXA_PACKET_BUFFER_SIZE 4144u
#define VEXA_PACKET_MAX_DATA (VEXA_PACKET_BUFFER_SIZE - VEXA_PACKET_HEADER_LENGTH - \
                              VEXA_PACKET_CHECKSUM_LENGTH)

/* The description of one request (50 bytes, packed, little-endian). Only
 * word5 (bit 0), word6 (zero or not), word8 (low 4 bits), word9, half10 and
 * ext reach the frame. */
typedef struct __attribute__((packed)) {
    uint32_t word0;
    uint32_t word1;
    uint32_t word2;
    uint32_t word3;
    uint32_t word4;
    uint32_t word5;  /* bit 0 -> control bit 5 */
    uint32_t word6;  /* zero -> control bit 6 */
    uint32_t word7;
    uint32_t word8;  /* low 4 bits -> control bits 0-3 */
    uint32_t word9;  /* frame offset 22 */
    uint16_t half10; /* frame offset 11 */
    uint8_t ext[8];  /* frame offsets 14-21, copied as they lie */
} vexa_request_record_t;

/* The frame label counter: incremented before each frame; a frame carries
 * labels 1..65535, then 1 again. */
VEXA_API extern uint16_t g_n_lable;

/* Sends one request frame carrying len data bytes (data may be null when len
 * is 0) on fd: word9 and word5 as given, the other fields as the update flow
 * uses them (control byte 0x41, or 0x61 for an odd word5). Returns what
 * vexa_request returns. */
VEXA_API int32_t send_mcu_message(uint32_t word9, uint32_t word5, const uint8_t *data,
                                  uint32_t len, int32_t fd);
/* Builds the frame of a request record with the next label and writes it in
 * one write call. Returns the bytes written, or a negative value (-1 also
 * for a null record or more than VEXA_PACKET_MAX_DATA data bytes). */
VEXA_API int32_t vexa_request(const uint8_t *data, uint32_t len,
                              const vexa_request_record_t *request, int32_t fd);
/* Lays a whole frame into frame (len + 32 bytes): header fields as given,
 * ext_lo/ext_hi are the request's extension bytes as they lie in memory,
 * then the data and the checksum. 0, or -1 for a null frame. */
VEXA_API int32_t vexa_packet_data(uint8_t *frame, const uint8_t *data, uint32_t len,
                                  uint16_t head, uint16_t label, uint8_t control,
                                  uint16_t half10, uint32_t ext_lo, uint32_t ext_hi,
                                  uint32_t word9);
/* Writes len frame bytes to fd in one write and logs them (at most 1024 in
 * hexadecimal). Returns what write returned (-1 for a null frame). */
VEXA_API int32_t vexa_physical_send(const uint8_t *frame, uint32_t len, int32_t fd);
/* The 16-bit sum of count bytes; 0 for count 0; -1 for a null pointer. */
VEXA_API int32_t vexa_transfer_checksum(const uint8_t *bytes, uint32_t count);
/* Writes the head, bytes 2-5 and the next label into a frame. 0 (-1 for a
 * null frame). */
VEXA_API int32_t vexa_packet_add_frame_header(uint8_t *frame);
/* Fills the remaining length for len data bytes (offset 8), the control
 * byte (offset 10) and half10 (offset 11). 0 (-1 for a null frame). */
VEXA_API int32_t vexa_packet_add_request_header(uint8_t *frame, uint32_t len, uint32_t word5,
                                                uint32_t word6, uint32_t word8, uint16_t half10);
/* Fills offsets 13-29: the extension bytes, word9 and the zero words.
 * 0 (-1 for a null frame). */
VEXA_API int32_t vexa_packet_add_request_body(uint8_t *frame, uint32_t ext_lo, uint32_t ext_hi,
                                              uint32_t word9);
/* 30, the header length. */
VEXA_API int32_t vexa_get_packet_length(void);
/* The 4 bytes at p as a big-endian 32-bit value (0 for null). */
VEXA_API uint64_t transUcharArrayToU64(const uint8_t *p);
/* Copies count bytes from src to dst (nothing when either is null). */
VEXA_API void putDataToSendCach(const void *src, void *dst, uint32_t count);

/* ---- The MCU UART of the update flow ---------------------------------- */

/* Opens "mcu_uart_path" of config_info at "mcu_baud_rate" (8N1, blocking
 * reads). Returns the descriptor, or -1 (also when config_info is not
 * loaded). */
VEXA_API int32_t serialInit(void);
/* Discards the bytes waiting on fd; returns how many, or -1. */
VEXA_API int32_t clearSerialBuffer(int32_t fd);

/* ---- Raw serial layer of the flasher (one module-wide descriptor) ------ */

VEXA_API int32_t mcu_serial_init(const char *path, uint32_t baudrate, int32_t databits,
                                 int32_t stopbits, char parity);
/* 0, or -1 for a rate outside 50..1000000 of the supported list. */
VEXA_API int32_t mcu_set_baudrate(int32_t fd, uint32_t baudrate);
/* 0; -1 bad data bits or attributes unreadable; -2 bad parity; -3 bad stop
 * bits; -4 attributes not applied. */
VEXA_API int32_t mcu_set_parity(int32_t fd, int32_t databits, int32_t stopbits, char parity);
/* Bytes written, or 2 on a write error (a positive code). */
VEXA_API int32_t mcu_serial_write(const uint8_t *buf, uint32_t count);
/* Reads exactly count bytes: 0 when they arrived, 3 after 100 empty waits of
 * 10 ms. A read error is repeated at once and does not count as an empty
 * wait; after 1000 errors in a row the read gives up with 3 (a descriptor
 * that can no longer deliver anything). */
VEXA_API int32_t mcu_serial_read(uint8_t *buf, uint32_t count);
/* Waits up to 1 s for input, then reads count bytes: 1 on success; 4 wait
 * error, 5 time-out, 3 after ten empty reads; a failed read counts as an
 * empty one, so a line whose reads keep failing ends with 3 too. */
VEXA_API int32_t mcu_serial_read_select(uint8_t *buf, uint32_t count);
VEXA_API int32_t mcu_serial_close(void);

/* ---- MCU watchdog and start-up status ------------------------------- */

/* Sets the line to 0. The HAL result, or -1 for an id below 1. */
VEXA_API int32_t bi_mcu_watchdog_open(int32_t gpio_id);
/* The closing signal: five 5 ms pulses, then the line stays at 1. */
VEXA_API int32_t bi_mcu_watchdog_close(int32_t gpio_id);
/* Starts a detached feeder thread (500 ms high / 500 ms low, for ever) and
 * returns 0 after 500 ms; -1 for an id below 1 or when no thread starts.
 * Each call starts one more feeder. */
VEXA_API int32_t bi_mcu_watchdog_start_feed(int32_t gpio_id);
/* Thirty 1 s pulses in the calling thread; the last HAL result, or -1. */
VEXA_API int32_t bi_mcu_watchdog_start_feed_test(int32_t gpio_id);
/* The line's level, or -1. */
VEXA_API int32_t bi_mcu_check_startup_status(int32_t gpio_id);
/* The feeder's thread body; arg points to the GPIO id, read once at start.
 * Returns (null) only for an id below 1 or a null arg. */
VEXA_API void *wdtPulseThreadHandle(void *arg);

/* ---- Firmware version and update flow ------------------------------- */

/* Runs the configured update: 0 after an update attempt with the UART
 * reopened into *fd; -1 when no update was needed or the UART did not
 * reopen. */
VEXA_API int32_t mcuFwUpdate(int32_t *fd);
/* 0 when the MCU's version equals "mcu_fw_version", 1 when it differs after
 * ten tries 1 s apart. */
VEXA_API int32_t checkMcuFwVersion(int32_t fd);
/* Asks the MCU for its version and copies the 15 version bytes into buf
 * (at least 16 bytes; no terminator is written). Waits up to 500 ms for the
 * answer. 0, or -1. */
VEXA_API int32_t getMcuFwVersion(int32_t fd, char *buf);
/* Flashes "mcu_fw_path" (five tries) and records the configured version in
 * "persist.vexa.mcu_fw_version". 0 or -1. */
VEXA_API int32_t doMcuUpdateByIsp(void);
/* Chooses the flasher by chip family text ("gd32", "stm32", "n32"). 0 done or
 * nothing to do; -1 bad configuration; otherwise the flasher's code. */
VEXA_API int32_t mcu_isp_fw_update(const char *file_path, const char *uart_path,
                                   const char *chip_serial);
/* Size of a file in bytes, or -1. */
VEXA_API int64_t getFileSize(const char *path);

/* ---- ROM-bootloader flasher ---------------------------------------- */

#define MCU_ISP_ACK 0x79
#define MCU_ISP_NACK 0x1F
#define MCU_ISP_START 0x7F
#define MCU_ISP_FLASH_BASE 0x08000000u
/* Result of mcu_tool_isp_task on failure. */
#define MCU_ISP_TASK_FAILED 15

typedef enum {
    MCU_UNKNOWN = 0,
    MCU_GD32F303 = 1,
    MCU_GD32E503 = 2,
    MCU_GD32F470 = 3,
    MCU_STM32H750 = 4,
} mcu_type_t;

/* A row of the command table: code and blank-padded name; the table ends
 * with code 0xFF. */
typedef struct {
    uint8_t code;
    char name[24];
} isp_cmd_t;

VEXA_API extern const isp_cmd_t isp_cmd_arr[];
/* Names of the MCU types, indexed by mcu_type_t. */
VEXA_API extern const char *const str_mcu_type[5];

/* The whole flash: reset into the bootloader, greet, identify, erase, write
 * from 0x08000000, reset back into the application. 0, or 15. */
VEXA_API int32_t mcu_tool_isp_task(const char *file_path, const char *uart_path);
/* The interactive variant, for manual use: like mcu_tool_isp_task, but first
 * lifts readout and write protection (each restarts the bootloader, which is
 * greeted again) and at the end reads the flash back and compares it with
 * the image. file_path null: MCU_ISP_TEST_IMAGE. 0, or 15. */
#define MCU_ISP_TEST_IMAGE "/data/local/tmp/mcu_test.bin"
VEXA_API int32_t task(const char *file_path, const char *uart_path);
/* The N32 family's flasher. Its protocol is not implemented: logs an error
 * and returns -1. */
VEXA_API int32_t n32_uart_isp_upgrade(const char *file_path, const char *uart_path);
/* Reset sequences on "/sys/class/vexagpios/MCU_BOOT0/value" and
 * "/sys/class/vexagpios/MCU_NRST/value". */
VEXA_API void mcu_isp_init(void);
VEXA_API void mcu_isp_close(void);
VEXA_API void mcu_enter_isp_mode(void);
VEXA_API void mcu_exit_isp_mode(void);
/* Logs "send cmd [0xNN] : NAME" for a command code. */
VEXA_API void display_cmd(uint8_t code);
/* Start byte: 0 ACK, 6 NACK, 15 anything else or silence, 1 no descriptor. */
VEXA_API int32_t ack_startisp(void);
/* A command byte and its complement: 0 ACK, -1 NACK, -2 other, -4 no
 * descriptor. */
VEXA_API int32_t ack_sendcmd(uint8_t command);
/* Erases the pages the detected type needs for [start, start + length). 0 or -1. */
VEXA_API int32_t erasememory_extend(uint32_t start, uint32_t length);
/* Writes data in 256-byte blocks from address. 0, or -1 when not all went. */
VEXA_API int32_t writememory_2mcu(uint32_t address, const uint8_t *data, uint32_t length);
/* Reads length bytes from address into data in 256-byte blocks. 0 or -1. */
VEXA_API int32_t readmemory_4mcu(uint32_t address, uint8_t *data, uint32_t length);
/* Product ids: the GD32 command 0x06 (0 when absent) and ST's GET_ID (0x450
 * or 0). */
VEXA_API uint32_t read_gd_mcu_pid(void);
VEXA_API uint32_t read_st_mcu_pid(void);
/* Detects the MCU type (see mcu_get_type). */
VEXA_API void mcu_type_detect(void);
/* The type detected last (module-wide; MCU_UNKNOWN at start). */
VEXA_API int32_t mcu_get_type(void);
/* Whole-file helpers: size (-1 missing), read into buf (at most size bytes;
 * bytes read or -1), write (bytes written or -1). */
VEXA_API int64_t file_size(const char *path);
VEXA_API int64_t file_read(const char *path, uint8_t *buf, uint64_t size);
VEXA_API int64_t file_write(const char *path, const uint8_t *buf, uint64_t size);

/* Progress of the write phase, called after each block with the bytes
 * written so far and the total (null: none). For tools that draw a bar. */
typedef void (*mcu_isp_progress_fn)(uint32_t done, uint32_t total, void *user);
VEXA_API void mcu_isp_set_progress(mcu_isp_progress_fn fn, void *user);

VEXA_EXTERN_C_END

#endif
