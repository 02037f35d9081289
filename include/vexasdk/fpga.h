/*
 * FPGA control: loading the display FPGA's program at boot, sending it the
 * screen parameters, updating its firmware and flash, bringing up its
 * Ethernet link to the SoC, and the receiving cards behind it.
 *
 * Board families. The dispatching functions read PRODUCT_NUM: 2 is the
 * qr3plus/qr5plus family (program kept in an eMMC block, updated over SPI
 * with version tags), 3 the family without program update whose parameters
 * go through the receiving cards (the QR1 and QR2 boards), 0 and every other
 * value the QRxx RK3566 family (program loaded through "/dev/fpga_load").
 * The library never writes PRODUCT_NUM: the board's start-up service sets it
 * once, before its first FPGA call (vexactl sets it from the product name:
 * QR3PLUS and QR5PLUS give 2, QR1 and QR2 give 3, anything else 0). The
 * boards with their own load processes are told apart by module id: 8470,
 * 8475, 8476 and 8478 are pz50pro boards (the FPGA boots from its own SPI
 * flash), 4374 is the hcu900pro (loaded by the HAL, parameters over UDP).
 *
 * Records. Most functions take their pins and paths from bi_product
 * (bi_init_product_config); the pz50pro and hcu900pro load processes,
 * fpgaCheckDone, fpgaFwUpdate, fpgaFlashFormat and fpgaFlashWrite take them
 * from config_info (parseConfigInfo) and refuse (-1; fpgaCheckDone 0) while
 * it is not loaded.
 *
 * Logging: "vexa_system_bi_fpga" for the bi_ functions, open_hdr (also when
 * a load process runs it) and the receiving
 * cards; "vexa_system_fw_update" for the load processes, fpgaCheckDone, the
 * UDP and screen-partition parameter paths, the flash update and the network
 * bring-up. Texts are fixed (clients match them), misspellings included.
 *
 * Waits: every wait is a sleep of the platform's clock; the fixed ones are
 * part of the protocol (10 ms before every "/dev/fpga_spi" packet, 100 ms
 * after each gamma packet, the poll periods). Waits that no Part fixes are
 * noted where they occur.
 *
 * Errors: signed 32-bit results as listed per function (0 or a count on
 * success, negative on failure); nothing throws. Safety bounds added to the
 * board's behaviour, each refused with a logged error line rather than
 * acted on: a program path of 128 bytes or more for the HAL loader; a
 * record, block or packet that would run past the data it was read into
 * (the bytes past the end read as zeros where the protocol sends them
 * anyway, the UDP tail write and the screen-partition packets); a UDP block
 * file whose blocks run past the end of the file; an HDR resolution
 * property with shell metacharacters.
 *
 * Threads: no locking. Shared state: PRODUCT_NUM, PZ_FPGA_LOADER_STATUS, the
 * block table st_func_offset_map_tab, free_routing_topology and the status
 * record buffer (rewritten by fpgaLoadScreenParamsBySpi), config_info's
 * FPGA-update flag, and the platform's one UDP link to the FPGA. Run one
 * FPGA operation at a time.
 */
#ifndef VEXASDK_FPGA_H
#define VEXASDK_FPGA_H

#include <stdint.h>

#include "vexasdk/export.h"

VEXA_EXTERN_C_BEGIN

/* ---- Board family and load status ---------------------------------------- */

#define BI_FPGA_FAMILY_QRXX_RK3566 0
#define BI_FPGA_FAMILY_QR3PLUS_QR5PLUS 2
#define BI_FPGA_FAMILY_NO_UPDATE 3

/* The board family (see above). Set by the client; read here. */
VEXA_API extern int32_t PRODUCT_NUM;
/* The last load result: 0 after a good HAL load (bi_fpga_load_program) or
 * the HAL's error after three failures; 1 after a good "/dev/fpga_load" load
 * (fpga_load_program_qrxx_rk3566), which leaves it as it was on failure.
 * Initially 0. */
VEXA_API extern int32_t PZ_FPGA_LOADER_STATUS;

/* The program image size of the "/dev/fpga_load" path. */
#define BI_FPGA_PROGRAM_SIZE 819200

/* ---- Program loading ----------------------------------------------------- */

/* PZ_FPGA_LOADER_STATUS as it stands. */
VEXA_API int32_t bi_fpga_get_fpga_done_status(void);
/* Do nothing; 0. */
VEXA_API int32_t bi_get_ultra_fpga_enable(void);
VEXA_API int32_t bi_set_ultra_fpga_enable(void);
/* Checks that the FPGA went through a reset and reports done again, on
 * bi_product's fpga_done_gpio (1..998), configured as an input: 0 when done
 * rises within 101 polls of 100 ms; -1 invalid pin; -2 done still high after
 * a 3 s wait (the FPGA was never reset); -3 time-out. */
VEXA_API int32_t check_fpga_config_done(void);
/* Polls config_info's fpga_done_gpio up to 20 times, 500 ms apart: 1 once
 * done reads 1, else the last level read (0); 0 at once for a pin below 1
 * or without config_info. */
VEXA_API int32_t fpgaCheckDone(void);
/* Loads bi_product's fpga_fw_path with the HAL's synchronous loader
 * (driver id fpga_drv_id), up to three attempts 1 ms apart: 0, or the HAL's
 * third result; -1 when the path is unset or 128 bytes or longer. */
VEXA_API int32_t bi_fpga_load_program(void);
/* bi_fpga_load_program (a failure is only logged), then the pz2k eth0/eth1
 * set-up (bi_fpga_eth1_config_pz2k); always 0. */
VEXA_API int32_t bi_fpga_load_program_pz2k(void);
/* Writes the first 819200 bytes of the program file (zeros after a shorter
 * one) into "/dev/fpga_load" in one write: 0 (and PZ_FPGA_LOADER_STATUS 1)
 * or -1. */
VEXA_API int32_t fpga_load_program_qrxx_rk3566(const char *path);
/* Loads bi_product's fpga_program_path through "/dev/fpga_load", then sends
 * the parameters (bi_fpga_load_parameter): 0; -1 path unset; -2 load failed;
 * -3 parameters failed. */
VEXA_API int32_t bi_fpga_load_program_qrxx_rk3566(void);
/* Updates the program by family: 2 the qr3plus/qr5plus SPI update; 3 nothing
 * (0); otherwise load through "/dev/fpga_load" (-2), send the parameters
 * (-3) and keep the file in the program partition (fpga_update_program_to_emmc's
 * result). -1 for a null path. */
VEXA_API int32_t bi_fpga_update_program(const char *path);
/* Family 2 only (else 0): updates from "/vendor/etc/fpga.bin" when
 * fpga_program_path is set (-1 otherwise), retrying once on a negative
 * result. */
VEXA_API int32_t bi_fpga_active_update_program(void);
/* The hcu900pro: a temporary HAL load of path through fpga_drv_path, the
 * eth1 set-up, then the UDP parameters (fpga_parameter, hex_parameter): 0 or
 * -1. Waits 1 s after the load and 1 s before the parameters. */
VEXA_API int32_t bi_fpga_update_program_hcu900pro(const char *path);
/* The fixed Ethernet set-ups after a load (shell commands; results not
 * checked); 0. hcu900pro: eth1 down, mtu 1500, up, 1 s, address
 * 240.10.10.10/24. pz2k: eth0 and eth1 down and up with mtu 1500 (100 ms
 * apart), 1 s, a static ARP entry for the FPGA (240.10.10.20). */
VEXA_API int32_t bi_fpga_eth1_config_hcu900pro(void);
VEXA_API int32_t bi_fpga_eth1_config_pz2k(void);
/* Switches HDR on when "persist.hdr.wantenable" is "true" and
 * "persist.hdr.res" is not "null" (running test-systemcontrol with the
 * resolution), and records the outcome in "sys.hdr.realyenable": 0, or the
 * command's status; -1 (nothing run) for a resolution with shell
 * metacharacters. */
VEXA_API int32_t open_hdr(void);
/* The boot-time load processes, 0 or -1:
 * - pz50pro: HDR, then a pending flash update ("persist.vexa.system.fpga.fw.update"
 *   "1": format, 1 s, write, done check; the property is cleared only after
 *   a good update, so a failed one is retried at the next boot), the done
 *   check, DDR check and recovery, screen parameters from the "screen"
 *   partition, the SGMII/PHY bring-up (after an update, also the switch of
 *   the MAC to the UDP link). Failures after the done check are logged only.
 * - hcu900pro: temporary HAL load, 1 s, eth1 set-up, 1 s, UDP parameters
 *   (config_info's paths).
 * - QRxx t507 (families 0 and 2): a pending update (bi_fpga_active_update_program),
 *   then bi_fpga_load_parameter. */
VEXA_API int32_t fpgaLoadProcessPz50Pro(void);
VEXA_API int32_t fpgaLoadProcessHcu900Pro(void);
VEXA_API int32_t fpgaLoadProcessQRxx_t507(void);

/* ---- Screen parameters --------------------------------------------------- */

/*
 * The screen parameter block file (UDP and screen-partition paths), all
 * big-endian: a 32-bit block count, then per block the FPGA register base
 * address (32-bit), the data length (32-bit) and the data. A block with
 * address 0 or length 0 ends the parse.
 *
 * The SPI record stream (bi_fpga_load_parameter): records of an 8-byte
 * header (2 unused bytes, a 2-byte tag, a big-endian 32-bit length of
 * 1..51200) and their data; an all-zero header ends it. Each record goes to
 * the spi_fpga device as "E", the tag, the data and a 0 byte.
 */

#define BI_FPGA_MAX_BLOCKS 60
#define BI_FPGA_TOPOLOGY_COUNT 20
#define BI_FPGA_SCREEN_BUFFER_SIZE (2u << 20)
#define BI_FPGA_PARAMETER_MAX (1u << 20)
#define BI_FPGA_RECORD_MAX 51200
#define BI_FPGA_STATUS_SIZE 64

/* One parsed block: register address, data length, offset of its data in
 * the packed data buffer. */
typedef struct {
    uint32_t fpga_addr;
    uint32_t data_len;
    uint32_t offset;
} st_func_offset_map_t;

/* The blocks of the last parse_emmc_block (entries past the parse are zero). */
VEXA_API extern st_func_offset_map_t st_func_offset_map_tab[BI_FPGA_MAX_BLOCKS];
/* The line counts of the topology blocks, from the last block at 0x10018000
 * (zero without one). */
VEXA_API extern uint32_t free_routing_topology[BI_FPGA_TOPOLOGY_COUNT];
/* The FPGA's link status record (64 bytes of register 0x1200), as
 * fpgaLoadScreenParamsBySpi last read it. The library fills it itself: each
 * round of that function's status wait reads the record over
 * "/dev/fpga_spi", so the wait is paced by the SPI transfers and needs no
 * other thread. Bytes 22-25 are the link state (0, 3, 0, 1 when the
 * parameters are in force); bytes 33-34, 41-42 and 47-48 the input width,
 * height and refresh (little-endian, non-zero when a source is present). */
VEXA_API extern uint8_t buffer[BI_FPGA_STATUS_SIZE];
/* The colour-space packets (SDR, HDR) and the HDR gamma switch, as sent. */
VEXA_API extern const uint8_t send_csc_1[33];
VEXA_API extern const uint8_t send_csc_1_yuv[33];
VEXA_API extern const uint8_t send_gamma_sdr_10bit[7];

/* Sends the parameters by family: 3 hands over to the receiving cards (port
 * 1, write, address 0x2000100, one byte 0) and returns that result; 0 and 2
 * send the record stream of bi_product's fpga_parameter file (at most 1 MiB)
 * to the spi_fpga device; other families return 0. In every case except
 * family 3 and a failed allocation (-1) it then reads the FPGA's source mode
 * and, unless it is 'X', waits 5 s and switches the Ethernet outputs on
 * (also after a failed load, deliberately). Codes: 0; -2/-3 fpga_parameter
 * missing/"UNDEF"; -4/-5 spi_fpga missing/"UNDEF"; -6 SPI node absent; -4
 * parameter file unreadable; -5 SPI node cannot be opened; -6 a record
 * write failed; the source-mode read's failure keeps the code reached. */
VEXA_API int32_t bi_fpga_load_parameter(void);
/* Sends a block file over the UDP link: screen_path, or hex_path when
 * screen_path's block count is 0, 0xFFFFFFFF or above 0x7FFFFFFF. 0 or -1.
 * The source wait lasts until seven stable readings (100 ms apart) or 3 s. */
VEXA_API int32_t bi_fpga_load_screen_params_by_udp(const char *screen_path,
                                                   const char *hex_path);
/* Reads a block file's count into *blocknum and walks its blocks for the
 * total length (*length, the count included). 0 or -1. */
VEXA_API int32_t read_para_blcoknum_offest(const char *path, uint32_t *blocknum,
                                           uint32_t *length);
/* Walks blocknum blocks from fd's position (just after the count), adding
 * 8 plus each data length to *length; the walk ends early at the end of the
 * file. 0, or -1 for a zero data length. */
VEXA_API int32_t cal_block_para_length(int32_t fd, uint32_t blocknum, uint32_t *length);
/* Reads up to count bytes of the file into buf: the bytes read, or -1. */
VEXA_API int32_t read_hcu900_paramter(const char *path, uint8_t *buf, uint32_t count);
/* Opens the UDP link, blacks the screen, sends the blocks
 * (send_emmc_block_param), waits for a stable source, enables the network
 * outputs and the picture, closes the link: 0 or -1 (a failed enable
 * returns -1 and leaves the link open). The image (length bytes) stays the
 * caller's. */
VEXA_API int32_t fpgaSendParaDatabyUdp(const uint8_t *image, uint32_t blocknum, uint32_t length);
/* Writes the first blocknum - 1 blocks of the image over the UDP link: 1024
 * bytes a write; the tail of a longer block goes to base + 2 x S from data +
 * 2 x S (S the bytes already sent), as the FPGA expects it. The last block
 * is never written. 0 or -1. */
VEXA_API int32_t send_emmc_block_param(const uint8_t *image, uint32_t blocknum, uint32_t length);
/* value with its bytes reversed (the bytes are logged). */
VEXA_API uint32_t int_to_little_endian_bytes(uint32_t value);
/* -1 for a block count of 0 or 0xFFFFFFFF, else 0. */
VEXA_API int32_t verify_param(uint32_t blocknum);
/* The pz50pro parameters from the "screen" partition (or
 * "/system/etc/led_screen.hex" when it holds no block) as "/dev/fpga_spi"
 * packets, then the fixed packets, the status wait (at most 4 s) and the
 * network-gap enable: 0, or -1 when no parameters can be read. */
VEXA_API int32_t fpgaLoadScreenParamsBySpi(void);
/* Reads "/dev/block/by-name/screen" into buf (BI_FPGA_SCREEN_BUFFER_SIZE
 * bytes): the bytes read, or -1. */
VEXA_API int32_t read_screen_paramter(uint8_t *buf);
/* Parses a block image (BI_FPGA_SCREEN_BUFFER_SIZE bytes) into
 * st_func_offset_map_tab and packs the blocks' data into packed (the same
 * size): the header's count (0 for 61 or more), also when the parse stopped
 * at a zero address or length. A block that runs past the image ends it. */
VEXA_API int32_t parse_emmc_block(uint8_t *packed, const uint8_t *image);
/* The block count of the "screen" partition, or -1. */
VEXA_API int32_t get_block_num_for_screen_params(void);
/* Sends lines 22-byte packets: the j-th to addr + 16j with the 16 bytes at
 * packed + offset + 16j. */
VEXA_API void sendTopologyPara(const uint8_t *packed, uint32_t offset, uint32_t addr,
                               uint32_t lines);
/* Opens "/dev/fpga_spi", waits 10 ms, writes the packet, closes: the bytes
 * written or -1. */
VEXA_API int32_t spi_send_data(const uint8_t *packet, uint32_t length);
/* The fixed packets, the colour space (HDR when "sys.hdr.realyenable" is
 * "true") and the per-block extras of the table's first blocknum entries. */
VEXA_API void sendFixedParameter(uint32_t blocknum, const uint8_t *packed);
/* Enables the network-gap tables present among the table's first blocknum
 * entries (0x10810000: bit 0, 0x10820000: bit 1) with one packet to
 * 0x10800000: the bytes written or -1. */
VEXA_API int32_t sendNetGapeEnable(uint32_t blocknum, const uint8_t *packed);
/* Switches the FPGA's Ethernet outputs on: up to 99 rounds of the write
 * 45 00 24 01 00 and the read-back 43 00 24 00 00, 5 ms apart, until the
 * fifth byte read is 1: 0, or -1 when they never come on. */
VEXA_API int32_t fpga_set_netmouth_enabling(void);

/* ---- Firmware update and flash ------------------------------------------- */

/* The client's update entry: dispatches by bi_product's module id (38409,
 * 38427-38429, 38432-38437, 38441-38443, 38455-38458, 38460, 38462, 38463,
 * 38467: bi_fpga_update_program; 8470, 8475, 8476, 8478: the pz50pro flash
 * update; 4374: bi_fpga_update_program_hcu900pro; others: -1). */
VEXA_API int32_t bi_fpga_firmware_update(const char *path);
/* The pz50pro flash update with bi_product's pins: control and config low,
 * "mtd_debug erase /dev/mtd0 0 0xD00000", "mtd_debug write /dev/mtd0 0 SIZE
 * PATH", control high, config low and high, done poll. 0 or -1; a failed
 * erase or write leaves the control pin low (the FPGA stays off its flash).
 * A path with shell metacharacters is refused (-1, nothing run). */
VEXA_API int32_t bi_fpga_firmware_update_pz50pro(const char *path);
/* The same with config_info's pins; path null takes config_info's
 * fpga_fw_path. */
VEXA_API int32_t fpgaFwUpdate(const char *path);
/* Erases the flash with the control pin held low: 0 or -1. */
VEXA_API int32_t fpgaFlashFormat(void);
/* Writes config_info's fpga_fw_path into the flash with the control pin
 * held low, waits while an MCU update runs, and pulses the config pin (low,
 * 100 ms, high) when the "screen" partition holds no parameters: 0 or -1. */
VEXA_API int32_t fpgaFlashWrite(void);
/* Copies the program file into the program partition (fpga_program_path)
 * at offset 0: 0 (also when path is the partition itself: nothing to copy);
 * -1 path unset; -3 open; -4 stat; -5 memory; -6 read; -7 write. */
VEXA_API int32_t fpga_update_program_to_emmc(const char *path);
/* The file's size in bytes, 0 on failure. */
VEXA_API uint64_t get_file_size(const char *path);
/* The qr3plus/qr5plus update over SPI: compares the file's tag with the
 * running program's; on a difference sends the program (an information
 * packet, 512-byte pieces, the flash-write command), waits 13 s, resets the
 * FPGA (hold, 5 s, release, 5 s), waits 1 s and checks the new tag; a good
 * or unneeded update keeps the file in the program partition.
 * "persist.vexa.system.fpga.is.update" is "1" while it runs and "0" once it
 * ends, whatever the outcome. Codes: 0; -1 file unreadable or tags
 * malformed; -2 old tag unreadable; -3 checksum; -4 information packet; -5
 * a piece; -6 flash command; -7 reset; -8 new tag unreadable; -9 new tag
 * differs; -10 the copy to the program partition failed. */
VEXA_API int32_t fpga_update_program_qr3plus_qr5plus(const char *path);

/* ---- Network and PHY ----------------------------------------------------- */

/* Read length data bytes of the SGMII clock or negotiation register into buf
 * with one read of "/dev/fpga_spi": the read's result (length + 6), or -1. */
VEXA_API int32_t readFpgaSgmiiClockState(uint8_t *buf, int32_t length);
VEXA_API int32_t readFpgaSgmiiNegotiationState(uint8_t *buf, int32_t length);
/* Reads the DDR state byte (1: calibrated): the read's result, or -1. */
VEXA_API int32_t readFpgaDdrState(uint8_t *state);
/* The DDR check after a load: up to three reads 10 ms apart; a state other
 * than 1 is recovered by pulsing the DDR reset (0x1017: 0, then 1), waiting
 * 100 ms and reading again. 0 when the DDR is good, -1 when it stays bad or
 * cannot be read. */
VEXA_API int32_t fpgaCheckDDRAndRecovery(void);
/* Pulses the SGMII transmit and receive resets (low, low, 5 ms, high, high):
 * 0, or -1 when any of the four packets failed (the others are sent). */
VEXA_API int32_t sendFpgaTxRxReset(void);
/* Pulses the RTL8211FS reset line ("0", 500 ms, "1", 200 ms): 0 or -1. */
VEXA_API int32_t reset8211FS(void);
/* 1 when the PHY's link text contains "0x907", 0 when not, -1 unreadable. */
VEXA_API int32_t readRtl8211fsPhyLink(void);
/* One shell step each (the command's status): load the MAC driver, address
 * eth1, set the PHY's SGMII register. */
VEXA_API int32_t fpgaDwmacConfig(void);
VEXA_API int32_t fpgaEthConfig(void);
VEXA_API int32_t fpgaPhyConfig(void);
/* The whole bring-up: 0, or -1 when the SGMII clock never runs, the resets
 * fail or the PHY reports no link. */
VEXA_API int32_t fpgaPhySgmiiConfig(void);
/* Up to five bring-ups; always 0. Prints "in fpgaNetworkConfig" and
 * "fpgaNetworkConfig try" on standard output. */
VEXA_API int32_t fpgaNetworkConfig(void);

/* ---- Receiving cards (families 2 and 3) ---------------------------------- */

/* Write, or write and read in full duplex (the received bytes replace the
 * sent ones), length bytes on bi_product's spi_fpga device: length, or
 * negative (-1 when spi_fpga is unset). */
VEXA_API int32_t bi_fpga_spi_write(const uint8_t *buf, uint32_t length);
VEXA_API int32_t bi_fpga_spi_write_read(uint8_t *buf, uint32_t length);
/* Reads length bytes of the FPGA's register window from address
 * (0x2000000..0x2000200, offset + length at most 512) into out: the
 * transfer's result; 0 on families other than 2 and 3 (no transfer); -1
 * address; -2 length; -3 transfer failed. */
VEXA_API int32_t bi_fpga_read_0x02000000(uint32_t address, uint8_t *out, int32_t length);
/* A register write (direction 1: length bytes from data) or read (0: into
 * data) on the cards of port: write: the sender's result (length + 18), -4;
 * read: the reply transfer's result (length + 4), -5; any other direction
 * 0. -99 family other than 2 and 3; -1 address with the top bit set; -2
 * length above 1024 or negative; -3 null data. A read polls the card up to
 * 10 times, 20 ms apart, and reads the reply even when it never showed
 * ready. */
VEXA_API int32_t bi_fpga_receive_card_test(uint8_t port, int32_t direction, uint32_t address,
                                           uint8_t *data, int32_t length);
/* Sends a frame with the enable/disable handshake (10 ms, frame, 1 ms,
 * enable, 1 ms, disable): length; -1 null frame or negative length; -2/-3/-4
 * frame/enable/disable write failed. */
VEXA_API int32_t send_data_to_receive_card(const uint8_t *frame, int32_t length);

VEXA_EXTERN_C_END

#endif
