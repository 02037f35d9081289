/*
 * Network: the netlink link monitor, which asks the board MCU, port by port,
 * whether each of the up to 40 output network ports has a link, over the
 * already open MCU serial line.
 *
 * Request (33 bytes) and reply (37 bytes) are fixed frames of the MCU link;
 * a reply is taken as soon as 37 bytes have come, or after 50 ms with what
 * has come by then (at most 64 bytes).
 *
 * Errors: 0 or -1; messages under the tag "vexa_system_fw_update".
 *
 * Threads: the serial descriptor is used without locking; keep other MCU
 * traffic off the line while a loop runs (a stray frame fails the header
 * check and the input is drained). The link-status mask belongs to the
 * caller.
 */
#ifndef VEXASDK_NETWORK_H
#define VEXASDK_NETWORK_H

#include <stdint.h>

#include "vexasdk/export.h"

VEXA_EXTERN_C_BEGIN

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
