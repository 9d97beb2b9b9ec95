/* Binary interface between a host application and the importer plug-in importer_hf.so.
 *
 * A C11 header with no dependencies but <stdint.h>. Load the module, resolve okv_plugin_init and
 * okv_plugin_importers, then call the importer's probe, inspect and import. All records use natural
 * alignment on a 64-bit little-endian platform; every offset below is part of the ABI.
 *
 * Text: NUL-terminated UTF-8 byte strings.
 * Threads: every function may be called from any thread, at the same time, as long as two imports do not
 * name the same destination file. The plug-in starts no threads and blocks on none. When its thread is
 * cancelled, a function goes on to its end.
 * Failures: no C++ exception leaves the plug-in, and it neither raises nor handles signals. A weight file
 * that another process cuts short while the container is written is a failed write; one that is cut short
 * while its header is read costs the process the kernel's SIGBUS, as with any mapped file. A file-size limit
 * of the process raises the kernel's SIGXFSZ unless the host ignores it.
 */
#ifndef OKV_HOST_ABI_H
#define OKV_HOST_ABI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define OKV_STATIC_ASSERT static_assert
extern "C" {
#else
#define OKV_STATIC_ASSERT _Static_assert
#endif

/* Result codes of probe, inspect and import. */
enum {
  OKV_OK = 0,
  OKV_FAILED = 1,      /* any other failure: out of memory, say */
  OKV_INVALID = 2,     /* a required argument is missing, the input is no model directory, or the container
                          could not be written */
  OKV_UNSUPPORTED = 3, /* well-formed input of a kind that is refused */
  OKV_IO_ERROR = 6,    /* the operating system refused to open, map or list the input */
  OKV_CORRUPTED = 7    /* damaged input */
};

#define OKV_ABI_VERSION 1u

/* What the plug-in is. Static, immutable, owned by the plug-in, valid until it is unloaded. */
typedef struct OKVPluginDescriptor {
  uint32_t abi_version;    /* OKV_ABI_VERSION */
  uint32_t plugin_version; /* 1 */
  const char* name;        /* "importer_hf" */
  const char* description; /* one line for people */
  void* reserved0;         /* null */
  void* reserved1;         /* null */
} OKVPluginDescriptor;

OKV_STATIC_ASSERT(sizeof(OKVPluginDescriptor) == 40, "OKVPluginDescriptor is 40 bytes");
OKV_STATIC_ASSERT(offsetof(OKVPluginDescriptor, abi_version) == 0, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVPluginDescriptor, plugin_version) == 4, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVPluginDescriptor, name) == 8, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVPluginDescriptor, description) == 16, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVPluginDescriptor, reserved0) == 24, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVPluginDescriptor, reserved1) == 32, "ABI offset");

/* Answer of probe. The host owns the record, the plug-in the texts, which are static. */
typedef struct OKVProbeResult {
  uint32_t confidence; /* 100: a directory with a regular file config.json; 0: not for this importer */
  const char* format;  /* "hf" on a match, else null */
  const char* detail;  /* "" on a match, else null */
  const char* reason;  /* "directory with config.json" on a match, else null */
} OKVProbeResult;

OKV_STATIC_ASSERT(sizeof(OKVProbeResult) == 32, "OKVProbeResult is 32 bytes");
OKV_STATIC_ASSERT(offsetof(OKVProbeResult, confidence) == 0, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVProbeResult, format) == 8, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVProbeResult, detail) == 16, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVProbeResult, reason) == 24, "ABI offset");

/* Answer of inspect. The host owns the record. The texts are the plug-in's and stay valid on the calling
 * thread until its next call of inspect, or until the thread exits. */
typedef struct OKVImportInfo {
  const char* format;       /* always "hf" */
  const char* architecture; /* the model's architecture, or "invalid" */
  const char* count;        /* "" after a success (no weights are read), "0" after a failure */
} OKVImportInfo;

OKV_STATIC_ASSERT(sizeof(OKVImportInfo) == 24, "OKVImportInfo is 24 bytes");
OKV_STATIC_ASSERT(offsetof(OKVImportInfo, format) == 0, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImportInfo, architecture) == 8, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImportInfo, count) == 16, "ABI offset");

/* Orders and answers of one import. Everything is the host's; the plug-in keeps nothing after the call. */
typedef struct OKVImportContext {
  uint32_t struct_size;       /* sizeof(OKVImportContext) as the host knows it; at least 48 */
  const char* dst_path;       /* container file to create or overwrite; required */
  char* error_buf;            /* optional: receives a NUL-terminated text when import fails */
  uint64_t error_buf_size;    /* bytes at error_buf; 0 means no buffer */
  uint64_t* out_tensor_count; /* optional: receives the number of tensors written, on success only */
  uint64_t* out_file_size;    /* optional: receives the container's size in bytes, on success only */
} OKVImportContext;

OKV_STATIC_ASSERT(sizeof(OKVImportContext) == 48, "OKVImportContext is 48 bytes");
OKV_STATIC_ASSERT(offsetof(OKVImportContext, struct_size) == 0, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImportContext, dst_path) == 8, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImportContext, error_buf) == 16, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImportContext, error_buf_size) == 24, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImportContext, out_tensor_count) == 32, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImportContext, out_file_size) == 40, "ABI offset");

/* One importer. Static, immutable, owned by the plug-in. The callbacks do not depend on one another. */
typedef struct OKVImporter {
  uint32_t abi_version;    /* OKV_ABI_VERSION */
  const char* id;          /* "hf" */
  const char* description; /* one line for people */
  uint32_t capabilities;   /* 3 */
  const char* format;      /* "hf", the same pointer as id */

  /* Is `path` a directory with a config.json? Opens and reads no file. Writes all of `out` and returns
   * OKV_OK, also for a path that does not exist (confidence 0); OKV_INVALID, with nothing written, when an
   * argument is null. */
  int32_t (*probe)(const char* path, OKVProbeResult* out);

  /* Reads the model description, but no weights. Writes all of `out`; OKV_INVALID, with nothing written,
   * when an argument is null. */
  int32_t (*inspect)(const char* path, OKVImportInfo* out);

  /* Converts the directory `path` into the container `ctx->dst_path`. OKV_INVALID when an argument or
   * dst_path is null or struct_size is below 48. A failure while writing leaves the partly written file in
   * place. A destination that is one of the weight files being read is refused before it is touched. */
  int32_t (*import)(const char* path, OKVImportContext* ctx);
} OKVImporter;

OKV_STATIC_ASSERT(sizeof(OKVImporter) == 64, "OKVImporter is 64 bytes");
OKV_STATIC_ASSERT(offsetof(OKVImporter, abi_version) == 0, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImporter, id) == 8, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImporter, description) == 16, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImporter, capabilities) == 24, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImporter, format) == 32, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImporter, probe) == 40, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImporter, inspect) == 48, "ABI offset");
OKV_STATIC_ASSERT(offsetof(OKVImporter, import) == 56, "ABI offset");

/* The two exported functions. No side effects; any number of calls. */
const OKVPluginDescriptor* okv_plugin_init(void);
/* Returns the first element of the importer table and stores its length, 1, in *count unless it is null. */
const OKVImporter* okv_plugin_importers(uint32_t* count);

/* Their types, for dlsym. */
typedef const OKVPluginDescriptor* (*okv_plugin_init_fn)(void);
typedef const OKVImporter* (*okv_plugin_importers_fn)(uint32_t* count);

#ifdef __cplusplus
}
#endif

#endif
