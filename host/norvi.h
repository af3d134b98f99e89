/* The driver-interface library "norvi".
 *
 * The host core opens libnorvi.so on the first call of any of these functions
 * (see NorviLoader.cpp); where it cannot be opened, every call fails cleanly:
 * norvi_open gives null, the others a non-zero code, and norvi_get_error the
 * reason. Handles are opaque and never owned by the callers that are given one.
 */
#ifndef NORVI_H
#define NORVI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct norvi_handle* norvi_handle_t;

/* A handle to the driver, or null (norvi_get_error(NULL, ...) says why). */
norvi_handle_t norvi_open(void);
void norvi_close(norvi_handle_t handle);
/* Fills buffer with the text of the last error of the handle (or of the
 * library when handle is null). Returns 0. */
int norvi_get_error(norvi_handle_t handle, char* buffer, size_t size);
/* Registers an event (an eventfd) that ends the wait of norvi_get_ssl_request
 * when it is signalled. 0 is success. */
int norvi_register_event(norvi_handle_t handle, int kind, int event);
/* Waits for one SSL request: fills the 80-byte header and points data at the
 * request's data block (valid until the next call on the handle). 0 with a
 * request, non-zero when there is none to give. */
int norvi_get_ssl_request(norvi_handle_t handle, void* header, const void** data,
                          uint32_t* dataLen);
/* Hands one SSL response to the driver. 0 is success. */
int norvi_ssl_response(norvi_handle_t handle, const void* response, size_t size);
/* Adds a block of the 12-byte request record. 0 is success, otherwise an
 * errno value. */
int norvi_add_blacklist(norvi_handle_t handle, const void* request);

#ifdef __cplusplus
}
#endif

#endif
