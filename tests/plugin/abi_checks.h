/* Checks of the plug-in's binary interface, written in C as a host would be. Each returns null when
 * everything held, else a static text that names the line and the expression that did not. */
#ifndef OKV2_TESTS_ABI_CHECKS_H
#define OKV2_TESTS_ABI_CHECKS_H

#include "plugin/host_abi.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What the checks work on; the paths are the caller's. */
typedef struct AbiSubject {
  okv_plugin_init_fn init;
  okv_plugin_importers_fn importers;
  const char* good_dir;    /* a whole model directory of architecture "llama" with one tensor */
  const char* slash_dir;   /* the same with one trailing slash */
  const char* slashes_dir; /* the same with two trailing slashes */
  const char* bad_dir;     /* a directory whose config.json is no JSON */
  const char* empty_dir;   /* a directory without config.json */
  const char* folder_dir;  /* a directory whose config.json is a directory */
  const char* pipe_dir;    /* a directory whose config.json is a FIFO */
  const char* regular_file;
  const char* missing_path;
  const char* dst_path; /* a file that may be written */
} AbiSubject;

/* dlopen and dlsym; fills init and importers. */
const char* abi_load(AbiSubject* subject, const char* module_path);

const char* abi_check_descriptor(const AbiSubject* subject);
const char* abi_check_importer(const AbiSubject* subject);
const char* abi_check_importer_count(const AbiSubject* subject);
const char* abi_check_probe(const AbiSubject* subject);
const char* abi_check_probe_slashes(const AbiSubject* subject);
const char* abi_check_probe_null(const AbiSubject* subject);
const char* abi_check_inspect(const AbiSubject* subject);
const char* abi_check_inspect_null(const AbiSubject* subject);
const char* abi_check_import_null(const AbiSubject* subject);
const char* abi_check_import_struct_size(const AbiSubject* subject);
const char* abi_check_import_short_record(const AbiSubject* subject);
const char* abi_check_import_null_dst(const AbiSubject* subject);
const char* abi_check_import_error_text(const AbiSubject* subject);
const char* abi_check_import_success(const AbiSubject* subject);

#ifdef __cplusplus
}
#endif

#endif
