/*
 * Network: link, PHY and Wi-Fi status, and the netlink link monitor.
 *
 * Link and Wi-Fi status (tag "vexa_system_bi_network"; the link-status word
 * under "vexa_system_bi_misc"): the Ethernet carrier of eth0, the PHY link
 * bits that the product's PHY state commands (phy1_state_cmd,
 * phy2_state_cmd of bi_product) print, the Wi-Fi access point (wlan1) and
 * station (wlan0), interface addresses, the access point's client isolation
 * (an iptables rule dropping 192.168.41.0/24 in the FORWARD chain) and a
 * 64-bit link-status word kept in the property "vexa.netport_link_status".
 * Nothing is cached: every call reads sysfs, a property or a command's
 * output.
 *
 * Errors: -1 (and the other codes listed per function) after a log line. A
 * PHY state command or an interface name that holds shell metacharacters (or
 * an interface name that starts with '-') is refused with -1 and an error
 * line; nothing is run. Changing the isolation counts as done only when
 * iptables ran and exited 0; otherwise the result is 252.
 *
 * The netlink link monitor asks the board MCU, which asks the board MCU, port by port,
 * whether each of the up to 40 output network ports has a link, over the
 * already open MCU serial line.
 *
 * Request (33 bytes) and reply (37 bytes) are fixed frames of the MCU link;
 * a reply is taken as soon as 37 bytes have come, or after 50 ms with what
 * has come by then (at most 64 bytes).
 *
 * Errors: 0 or -1; messages under the tag "vexa_system_fw_update".
 *
 * Threads: the status calls keep no state and may be made from any thread
 * (two isolation changes at once may both find it off and both add the
 * rule). The monitor's serial descriptor is used without locking; keep other MCU
 * traffic off the line while a loop runs (a stray frame fails the header
 * check and the input is drained). The link-status mask belongs to the
 * caller.
 */
#ifndef VEXASDK_NETWORK_H
#define VEXASDK_NETWORK_H

#include <stdint.h>

#include "vexasdk/export.h"

VEXA_EXTERN_C_BEGIN

/* An interface's name and IPv4 address (each at most 15 characters,
 * terminated). */
typedef struct {
    char name[16];
    char ip[16];
} bi_ip_address_t;

/* Stores the link-status word as decimal text; property_set's result. */
VEXA_API int32_t bi_set_netport_link(uint64_t value);
/* Reads it back into *value; 0, or -1 when the property is unreadable,
 * empty or not wholly a decimal number that fits 64 bits. */
VEXA_API int32_t bi_get_netport_link(uint64_t *value);
/* eth0's carrier: 1 link, 0 none, -1 when the file cannot be opened, -2 when
 * it cannot be read. */
VEXA_API int32_t bi_network_get_pz50_link_status(void);
/* Runs a PHY state command through the shell as it is given (the product
 * INI's phyN_state_cmd, pipes and all: the command is the caller's, not text
 * the library pastes into one of its own) and returns the value of its
 * register line ("read phy addr: 0x1d  reg: 0x1f04   value : 0x..."), 0 when
 * no line matches, -1 for a null command or one that cannot be run. */
VEXA_API int32_t bi_network_get_link_status_detail(const char *command);
/* Port 1 or 2 (its PHY state command): bit 2 of the register, 1 link or 0;
 * -1 on error. Ports 3 and 4 have no command and give -1; so does any other
 * port. */
VEXA_API int32_t check_network_port(int32_t port);
/* Bit n-1 set for each linked port n of 1..phy_num (each linked port is
 * asked twice). */
VEXA_API int32_t bi_network_get_phy_link_status(void);
/* The link check of the board's module id: eth0's carrier, the PHY link
 * mask, or -1 for a module without one. */
VEXA_API int32_t bi_network_detection(void);
/* Client isolation of the access point: on 1, off 0. Reads the FORWARD
 * chain; when the state differs, adds or deletes the DROP rule for
 * 192.168.41.0/24 with iptables. 0 when it already was as asked (no change
 * is made) and when iptables ran and exited, whatever its exit status, as
 * the access point's tools have always had it: an exit status other than 0
 * leaves the rule as it was and is logged as a warning ("...: COMMAND
 * exited with N: the isolation is not changed"), so a caller that must know
 * reads the state back with bi_network_get_ap_insulation (vexactl does).
 * -1 for another value, -2 without a line buffer, -3 when iptables cannot
 * be run for the scan, 252 when the change did not run or did not exit
 * (killed by a signal). */
VEXA_API int32_t bi_network_set_ap_insulation(int32_t on);
/* 1 on, 0 off, -1 without a line buffer, -2 when iptables cannot be run. */
VEXA_API int32_t bi_network_get_ap_insulation(void);
/* The access point's channel (the last line iw printed), -1. */
VEXA_API int32_t bi_network_get_ap_channel(void);
/* 0 when wlan1 (access point) / wlan0 (station) exists, else -1. */
VEXA_API int32_t bi_network_get_ap_state(void);
VEXA_API int32_t bi_network_get_sta_state(void);
/* The first IPv4 address of interface name into record; 0 or -1. */
VEXA_API int32_t bi_network_get_ip_address(const char *name, bi_ip_address_t *record);

/* Builds the link request of port (0-39) into request (33 bytes): sequence
 * number 252 + port, the port's register. 0, or -1 for a port outside 0-39
 * or a null buffer. */
VEXA_API int32_t generate_net_request_exact(int32_t port, uint8_t *request);

/* Asks ports 0 to 39 in order, setting or clearing bit n of *link_status
 * for port n. 0, or -1 at the first port that fails (later ports are not
 * asked) or for a null mask. */
VEXA_API int32_t getNetlinkStatusLoop(int32_t fd, uint64_t *link_status);

/* Sends one request and applies the reply: the bit of the port index in the
 * reply (not of the request) is set for status 1 and cleared for status 0.
 * A failed write, an empty read, a bad header (input drained), tag or
 * sequence, or a status other than 0 and 1 is one failed attempt; after ten
 * the result is -1. */
VEXA_API int32_t sendNetlinkRequest(int32_t fd, uint64_t *link_status, const uint8_t *request);

VEXA_EXTERN_C_END

#endif
