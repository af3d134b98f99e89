// The Linux library's entry points beyond host/norvi.h. Callers outside the
// library (the Lua module "norvi") reach them through NorvCore::NorviSymbol,
// in the same loaded copy as the norvi_* functions.
//
// Records: a handle made by norvi_open_source reads the packet filter's NFLOG
// group live (options.m_NflogGroup >= 0, optionally installing the project's
// ruleset, which the handle removes again when it closes), or replays a
// capture file through the model of that ruleset (options.m_CapturePath).
//
// SSL requests: norvi_listen_ssl starts the process's SSL request socket (one
// per process); norvi_get_ssl_request on any handle takes the requests that
// clients submit there, norvi_ssl_response routes each answer back to its
// client. The wait in norvi_get_ssl_request ends when the eventfd registered
// with norvi_register_event (kind 1) is readable, or the socket is stopped.
//
// Blocks: norvi_add_blacklist adds the request's IPv4 address to the block
// set of the ruleset in the caller's network namespace, for the request's
// time; a time of 0 is refused (it would never end).
//
// Threads: every function may be called from any thread; one handle is used
// by one thread at a time, except norvi_get_error.
#pragma once

#include <stdint.h>

#include "driver/linux/RecordSource.h"
#include "host/norvi.h"

extern "C" {

// A handle with a record source; null with the reason in
// norvi_get_error(NULL, ...) when the source cannot start.
norvi_handle_t norvi_open_source(const NORVI::SourceOptions* options);
// 0 a record, 1 timeout, 2 end of capture, -1 error (norvi_get_error(handle)).
int norvi_next_record(norvi_handle_t handle, int timeoutMs, NORVI::SourceRecord* out);
// 0 with the source's counters; non-zero for a handle without a source.
int norvi_source_counters(norvi_handle_t handle, NORVI::SourceCounters* out);
// The replay's key log lines made since the last call, whole lines each
// ending in a newline, as many as fit into buffer; failed gets the number of
// SSL requests that failed so far. 0 when none are left, -1 for a handle
// without a source.
long norvi_take_keylog(norvi_handle_t handle, char* buffer, size_t size, uint64_t* failed);
// Starts the SSL request socket at path (0), or stops it when path is null or
// empty. A second path while one is served is refused (EBUSY); the same path
// again is 0. An errno value otherwise, with norvi_get_error(NULL, ...).
int norvi_listen_ssl(const char* path);
// The SSL socket's counts so far: clients accepted, requests queued, answers
// delivered, answers whose client had gone, requests refused (full),
// submissions dropped (malformed). Non-zero when no socket is served.
int norvi_ssl_counters(uint64_t counts[6]);

}  // extern "C"
