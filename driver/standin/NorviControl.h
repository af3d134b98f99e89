/* Test controls of the in-process driver stand-in (libnorvi.so).
 *
 * They play the driver's side of the channel: they see what the program sent
 * (block requests, SSL responses), choose what the driver answers, and queue
 * SSL requests as the driver would. Callers outside libnorvi.so reach them
 * through NorvCore::NorviSymbol so that they act on the same loaded copy as
 * the norvi_* functions. Every control may be called from any thread.
 */
#ifndef NORVI_CONTROL_H
#define NORVI_CONTROL_H

#include <stddef.h>
#include <stdint.h>

#include "host/norvi.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Size of one block request record, as norvi_add_blacklist reads it. */
#define NORVI_BLACKLIST_REQUEST_SIZE 12
/* Size of the fixed header of an SSL request. */
#define NORVI_SSL_HEADER_SIZE 80
/* Largest data block that one SSL request carries. */
#define NORVI_SSL_DATA_MAX 65456

/* Copies up to maxRequests of the block requests that reached
 * norvi_add_blacklist, oldest first, into buffer (NORVI_BLACKLIST_REQUEST_SIZE
 * bytes each) and forgets them. Returns how many were copied. */
size_t norvi_test_take_blacklist_requests(void* buffer, size_t maxRequests);
/* What norvi_add_blacklist returns from now on (0 is success). */
void norvi_test_set_blacklist_result(int code);

/* Queues one SSL request as the driver would: the NORVI_SSL_HEADER_SIZE bytes
 * of header and dataLen bytes of data. Requests go out in the order of
 * submission to whichever handle asks. 0, or EINVAL for a null header, null
 * data with a length, or more than NORVI_SSL_DATA_MAX bytes. */
int norvi_test_submit_ssl_request(const void* header, const void* data, uint32_t dataLen);

/* The oldest SSL response not yet taken (all handles together), or -1 when
 * there is none. When its size fits in capacity, copies it into buffer, stores
 * the handle that sent it in *sender (when sender is not null) and forgets it;
 * otherwise it stays queued. Either way the result is its size, so a caller
 * with too small a buffer learns what to allocate. */
long norvi_test_take_ssl_response(void* buffer, size_t capacity, norvi_handle_t* sender);
/* What norvi_ssl_response returns from now on (0 is success). */
void norvi_test_set_ssl_response_result(int code);

/* Number of handles that are open. */
size_t norvi_test_open_handles(void);
/* Forgets queued requests, recorded block requests and responses, and the
 * library's last error, and sets both results back to 0. Open handles stay. */
void norvi_test_reset(void);

#ifdef __cplusplus
}
#endif

#endif
