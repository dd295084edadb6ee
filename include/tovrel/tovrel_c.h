/* tovrel_c.h: Tovrel's C interface, for hosts built with any compiler and
 * for other languages' foreign-function layers.
 *
 * The same library as the C++ classes, seen through opaque handles and
 * plain types: nothing of C++ (no class, exception, allocator or wchar_t)
 * crosses this header. Text is UTF-8: paths are zero-terminated, effect
 * names are a pointer and a byte count (1 to 65,536 bytes of well-formed
 * UTF-8, any code point, U+0000 included).
 *
 * Every function returns a tovrel_status (tovrel_version,
 * tovrel_status_string and tovrel_free excepted) and catches everything
 * the library raises inside it, so nothing unwinds into the caller; its
 * out-parameters are written only when it returns TOVREL_OK, unless its
 * comment says otherwise. docs/C_API.md lists each function's statuses.
 *
 * Handles. tovrel_*_open and tovrel_package_create make a handle; the
 * matching close ends it. A handle is checked on every call: a null
 * handle, one already closed, or one the library never made gets
 * TOVREL_INVALID_HANDLE. A handle is never given out twice, so a closed
 * one stays invalid for good. Handles are opaque values: never
 * dereference one.
 *
 * Threads. An effect cache handle may be used from any number of threads
 * at once; searches run side by side. A package handle and the stream
 * handles opened from it may be used from any thread, one call at a time
 * per package: each call holds the package's own lock.
 *
 * Memory the library hands out (tovrel_effect_cache_get_alloc) is freed
 * with tovrel_free, never with the caller's own free().
 *
 * C99; also compiles as C++. */
#ifndef TOVREL_TOVREL_C_H
#define TOVREL_TOVREL_C_H

#include <stddef.h>
#include <stdint.h>

#include "tovrel/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The version this header belongs to; tovrel_version() tells the
 * library's. TOVREL_VERSION_NUMBER is major * 10000 + minor * 100 + patch. */
#define TOVREL_VERSION_MAJOR 0
#define TOVREL_VERSION_MINOR 5
#define TOVREL_VERSION_PATCH 0
#define TOVREL_VERSION_STRING "0.5.0"
#define TOVREL_VERSION_NUMBER (TOVREL_VERSION_MAJOR * 10000 + TOVREL_VERSION_MINOR * 100 + TOVREL_VERSION_PATCH)

typedef enum tovrel_status {
  TOVREL_OK = 0,
  TOVREL_NOT_FOUND = 1,        /* no effect of that name, no stream of that identifier, no cache or file there */
  TOVREL_BUFFER_TOO_SMALL = 2, /* the size needed is reported; nothing else happened */
  TOVREL_INVALID_ARGUMENT = 3, /* a null pointer, a size or value out of range, an options record not understood */
  TOVREL_INVALID_HANDLE = 4,   /* a null handle, or one already closed */
  TOVREL_BAD_NAME = 5,         /* a name that is empty, longer than 65,536 bytes or not UTF-8; a path not UTF-8 */
  TOVREL_UNUSABLE = 6,         /* the cache's file could not be opened or created, or a save failed */
  TOVREL_REFUSED = 7,          /* the cache did not keep the effect: too little disk space, or its size limit */
  TOVREL_READ_ONLY = 8,        /* the file or folder is read only: nothing can be written */
  TOVREL_DAMAGED = 9,          /* the file's bytes break the format */
  TOVREL_IO_ERROR = 10,        /* a file call failed */
  TOVREL_NO_MEMORY = 11,       /* memory ran out; nothing stored was lost */
  TOVREL_BUSY = 12,            /* the object is in use: a stream still open, a stream opened twice */
  TOVREL_INTERNAL_ERROR = 13   /* anything else the library raised */
} tovrel_status;

/* "0.5.0": the library's version, whatever header the caller was built with. */
TOVREL_API const char* tovrel_version(void);
/* A short English text for a status; "unknown status" for any other value. */
TOVREL_API const char* tovrel_status_string(tovrel_status status);
/* Frees memory the library handed out; null is ignored. */
TOVREL_API void tovrel_free(void* memory);

/* ---- The effect cache -------------------------------------------------- */

typedef struct tovrel_effect_cache tovrel_effect_cache;

/* How a cache is opened. Start from tovrel_effect_cache_options_init, then
 * change what is wanted; a null options pointer means the defaults. */
typedef struct tovrel_effect_cache_options {
  uint32_t struct_size;      /* sizeof(tovrel_effect_cache_options), set by init */
  int32_t compression_level; /* zlib level 0..9; the default is 2 */
  int32_t background_saving; /* -1: as "TOVREL_EFFECT_CACHE_BACKGROUND_SAVING" says (the default), 0 off, 1 on */
  const char* remote_store;  /* a store as the C++ SetRemoteStore takes it ("URL|read-only|..."), or null:
                                as "TOVREL_EFFECT_CACHE_REMOTE" says */
} tovrel_effect_cache_options;

TOVREL_API tovrel_status tovrel_effect_cache_options_init(tovrel_effect_cache_options* options);

/* Opens the cache of a folder, creating its file if there is none (the
 * folder itself must exist). A cache whose file cannot be opened or
 * created is still made, and its calls answer TOVREL_UNUSABLE: close it
 * as any other. */
TOVREL_API tovrel_status tovrel_effect_cache_open(const char* folder, const tovrel_effect_cache_options* options,
                                                    tovrel_effect_cache** cache);
/* Saves what waits (as the C++ object's last Release does) and ends the
 * handle; TOVREL_UNUSABLE when that save failed (the handle ends anyway). */
TOVREL_API tovrel_status tovrel_effect_cache_close(tovrel_effect_cache* cache);

/* Keeps an effect (1 byte to 1 MiB) under its name. */
TOVREL_API tovrel_status tovrel_effect_cache_put(tovrel_effect_cache* cache, const char* name, size_t name_size,
                                                   const void* data, size_t size, int permanent);
/* Copies the effect into the caller's buffer (capacity bytes; null with
 * capacity 0 only asks the size). *size is the effect's size on TOVREL_OK
 * and on TOVREL_BUFFER_TOO_SMALL. */
TOVREL_API tovrel_status tovrel_effect_cache_get(tovrel_effect_cache* cache, const char* name, size_t name_size,
                                                   void* buffer, size_t capacity, size_t* size);
/* The same into memory the library allocates (free it with tovrel_free). */
TOVREL_API tovrel_status tovrel_effect_cache_get_alloc(tovrel_effect_cache* cache, const char* name,
                                                         size_t name_size, void** data, size_t* size);
/* Saves the effects that wait, now. */
TOVREL_API tovrel_status tovrel_effect_cache_save(tovrel_effect_cache* cache);
/* Effects waiting in memory and effects in the file; each counted once. */
TOVREL_API tovrel_status tovrel_effect_cache_counts(tovrel_effect_cache* cache, uint64_t* in_memory,
                                                      uint64_t* in_file);

/* The hit statistics of the folder's file (counted across processes and
 * runs, as of the last save of each process) and what the file holds. */
typedef struct tovrel_effect_cache_stats {
  uint64_t hits, misses, cached, trimmed;
  uint64_t remote_hits, remote_misses, remote_errors, remote_bytes_in, remote_bytes_out;
  uint64_t effects;      /* effects in the file */
  uint64_t effect_bytes; /* their sizes together */
  uint64_t stored_bytes; /* their compressed sizes together */
  uint64_t file_bytes;   /* the file's length */
} tovrel_effect_cache_stats;
TOVREL_API tovrel_status tovrel_effect_cache_stats_read(const char* folder, tovrel_effect_cache_stats* stats);

/* One stored effect, as tovrel_effect_cache_list shows it. The name is
 * valid during the call only. */
typedef struct tovrel_effect_info {
  const char* name;
  size_t name_size;
  uint64_t size;        /* bytes */
  uint64_t stored_size; /* compressed bytes in the file */
  int permanent;
  int64_t last_used;    /* seconds since 1970-01-01 00:00:00 UTC */
} tovrel_effect_info;
/* Return 0 to go on, anything else to stop (tovrel_effect_cache_list then
 * returns TOVREL_OK). Called on the caller's thread, with the folder's
 * named mutex held: keep it short and do not call Tovrel from it. */
typedef int (*tovrel_effect_visitor)(void* context, const tovrel_effect_info* effect);
/* Every effect stored in the folder's file, in the order of its index. */
TOVREL_API tovrel_status tovrel_effect_cache_list(const char* folder, tovrel_effect_visitor visitor, void* context);

/* The maintenance operations, on a folder (hosts using it at the same
 * time reload before their next search or save). dry_run reports and
 * writes nothing. Each checks the file's tables first: a damaged file is
 * refused with TOVREL_DAMAGED and left exactly as it is. */
typedef struct tovrel_maintenance_result {
  uint64_t removed_effects, removed_bytes; /* stored bytes */
  uint64_t kept_effects, kept_bytes;
  uint64_t names_not_found;                /* tovrel_effect_cache_remove: names the cache did not hold */
} tovrel_maintenance_result;
/* Removes non-permanent effects: oldest last use first until the stored
 * bytes are at most max_stored_bytes (UINT64_MAX: no size rule), and every
 * one unused for more than max_age_seconds (-1: no age rule). */
TOVREL_API tovrel_status tovrel_effect_cache_trim(const char* folder, uint64_t max_stored_bytes,
                                                    int64_t max_age_seconds, int dry_run,
                                                    tovrel_maintenance_result* result);
/* Removes the named effects, permanent or not. */
TOVREL_API tovrel_status tovrel_effect_cache_remove(const char* folder, const char* const* names,
                                                      const size_t* name_sizes, size_t count, int dry_run,
                                                      tovrel_maintenance_result* result);
/* Removes every effect, or every non-permanent one. */
TOVREL_API tovrel_status tovrel_effect_cache_clear(const char* folder, int keep_permanent, int dry_run,
                                                     tovrel_maintenance_result* result);
/* Shrinks the file to the pages it uses; every effect stays. */
TOVREL_API tovrel_status tovrel_effect_cache_compact(const char* folder, uint64_t* file_bytes_before,
                                                       uint64_t* file_bytes_after);
/* Checks the folder's file (its package's tables, and that every effect
 * decompresses to its size) without changing it. Each problem found is
 * given to the visitor (null: only counted) as one line of UTF-8 text,
 * valid during the call only; return 0 to go on. TOVREL_OK with
 * *problems 0 means sound. */
typedef int (*tovrel_text_visitor)(void* context, const char* text, size_t size);
TOVREL_API tovrel_status tovrel_effect_cache_verify(const char* folder, tovrel_text_visitor visitor, void* context,
                                                      uint64_t* problems);

/* ---- The file package -------------------------------------------------- */

typedef struct tovrel_package tovrel_package;
typedef struct tovrel_stream tovrel_stream;

#define TOVREL_NO_STREAM UINT64_MAX

typedef struct tovrel_package_options {
  uint32_t struct_size;      /* sizeof(tovrel_package_options), set by init */
  uint64_t cache_page_count; /* pages of 8192 bytes kept in memory; the default is 64 */
  uint64_t stream_limit;     /* most streams; the default is 65535 */
} tovrel_package_options;

TOVREL_API tovrel_status tovrel_package_options_init(tovrel_package_options* options);

/* Starts an empty package in the file (created, or reused without being
 * cut) and saves it. */
TOVREL_API tovrel_status tovrel_package_create(const char* path, const tovrel_package_options* options,
                                                 tovrel_package** package);
/* Opens the package a file holds, for update. */
TOVREL_API tovrel_status tovrel_package_open(const char* path, const tovrel_package_options* options,
                                               tovrel_package** package);
/* Opens it for reading only: nothing is ever written to the file. */
TOVREL_API tovrel_status tovrel_package_open_read_only(const char* path, const tovrel_package_options* options,
                                                         tovrel_package** package);
/* Saves unsaved changes and ends the handle. Streams still open keep the
 * file open until they are closed. */
TOVREL_API tovrel_status tovrel_package_close(tovrel_package* package);
TOVREL_API tovrel_status tovrel_package_save(tovrel_package* package);

TOVREL_API tovrel_status tovrel_package_stream_count(tovrel_package* package, uint64_t* count);
/* The identifier of the index-th stream, in ascending identifier order. */
TOVREL_API tovrel_status tovrel_package_stream_id(tovrel_package* package, uint64_t index, uint64_t* id);
/* A new stream of a fixed size (below 2^31 bytes). */
TOVREL_API tovrel_status tovrel_package_stream_create(tovrel_package* package, uint64_t size, uint64_t* id);
TOVREL_API tovrel_status tovrel_package_stream_remove(tovrel_package* package, uint64_t id);
/* A stream may be open once at a time. A stream of size 0 holds nothing
 * to open: TOVREL_NOT_FOUND. */
TOVREL_API tovrel_status tovrel_package_stream_open(tovrel_package* package, uint64_t id, tovrel_stream** stream);

TOVREL_API tovrel_status tovrel_package_user_data_size(tovrel_package* package, uint64_t* size);
/* Copies the user data out (as tovrel_effect_cache_get does). */
TOVREL_API tovrel_status tovrel_package_user_data_get(tovrel_package* package, void* buffer, size_t capacity,
                                                        size_t* size);
/* Replaces the user data with these bytes. */
TOVREL_API tovrel_status tovrel_package_user_data_set(tovrel_package* package, const void* data, size_t size);

TOVREL_API tovrel_status tovrel_stream_close(tovrel_stream* stream);
/* Reads up to count bytes from the position; *done tells how many (fewer
 * at the end of the stream). */
TOVREL_API tovrel_status tovrel_stream_read(tovrel_stream* stream, void* buffer, uint64_t count, uint64_t* done);
/* Overwrites up to count bytes from the position, stopping at the end. */
TOVREL_API tovrel_status tovrel_stream_write(tovrel_stream* stream, const void* data, uint64_t count,
                                               uint64_t* done);
/* origin 0: from the start, 1: from the position, 2: from the end. A
 * target before 0 or past the size is TOVREL_INVALID_ARGUMENT, the
 * position unchanged. */
TOVREL_API tovrel_status tovrel_stream_seek(tovrel_stream* stream, int origin, int32_t offset);
TOVREL_API tovrel_status tovrel_stream_position(tovrel_stream* stream, uint64_t* position);
TOVREL_API tovrel_status tovrel_stream_size(tovrel_stream* stream, uint64_t* size);

#ifdef __cplusplus
}
#endif

#endif
