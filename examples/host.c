/* A minimal host: loads the importer plug-in and turns a HuggingFace model directory into an OKV2 container.
 *
 *   host PLUGIN MODEL_DIR OUT.okv2
 *
 * Build it against an installed importer_hf with CMakeLists.txt beside this file, or by hand:
 *   cc host.c $(pkg-config --cflags importer_hf) -ldl -o host
 *   ./host "$(pkg-config --variable=plugin importer_hf)" MODEL_DIR OUT.okv2
 *
 * The exit code is the plug-in's result code (OKV_OK and its neighbours in host_abi.h).
 */
#include <dlfcn.h>
#include <importer_hf/host_abi.h>
#include <inttypes.h>
#include <stdio.h>

/* Resolves a function. Going through the address of the result is how POSIX has a function pointer made
 * from the object pointer that dlsym returns. */
static int resolve(void* library, const char* name, void* function_pointer) {
  *(void**)function_pointer = dlsym(library, name);
  if (*(void**)function_pointer != NULL) return 1;
  fprintf(stderr, "host: %s\n", dlerror());
  return 0;
}

static int convert(const OKVImporter* importer, const char* model_dir, const char* container) {
  /* 1. Is this path for this importer? A cheap look: no file is read. */
  OKVProbeResult probe;
  int32_t code = importer->probe(model_dir, &probe);
  if (code != OKV_OK) return code;
  if (probe.confidence == 0) {
    fprintf(stderr, "host: %s is not a HuggingFace model directory\n", model_dir);
    return OKV_INVALID;
  }
  printf("probe: %s (%s, confidence %" PRIu32 ")\n", probe.format, probe.reason, probe.confidence);

  /* 2. What does it hold? The texts stay valid on this thread until the next call of inspect. */
  OKVImportInfo info;
  code = importer->inspect(model_dir, &info);
  if (code != OKV_OK) {
    fprintf(stderr, "host: the model description cannot be read\n");
    return code;
  }
  printf("inspect: architecture %s\n", info.architecture);

  /* 3. Convert. Every buffer is ours; the plug-in keeps nothing after the call. */
  char error[512] = "";
  uint64_t tensors = 0;
  uint64_t bytes = 0;
  OKVImportContext context = {
      .struct_size = sizeof context, /* lets a newer plug-in see how much of the record we know */
      .dst_path = container,
      .error_buf = error,
      .error_buf_size = sizeof error,
      .out_tensor_count = &tensors,
      .out_file_size = &bytes,
  };
  code = importer->import(model_dir, &context);
  if (code != OKV_OK) {
    /* A failure while writing leaves a partial file: a host that matters writes to a temporary name and
     * renames it on success. */
    fprintf(stderr, "host: %s\n", error);
    return code;
  }
  printf("import: %" PRIu64 " tensors, %" PRIu64 " bytes in %s\n", tensors, bytes, container);
  return OKV_OK;
}

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: host PLUGIN MODEL_DIR OUT.okv2\n");
    return OKV_INVALID;
  }
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) {
    fprintf(stderr, "host: %s\n", dlerror());
    return OKV_FAILED;
  }

  okv_plugin_init_fn plugin_init;
  okv_plugin_importers_fn plugin_importers;
  int result = OKV_FAILED;
  if (resolve(library, "okv_plugin_init", &plugin_init) &&
      resolve(library, "okv_plugin_importers", &plugin_importers)) {
    const OKVPluginDescriptor* plugin = plugin_init();
    uint32_t count = 0;
    const OKVImporter* importer = plugin_importers(&count);
    if (plugin->abi_version != OKV_ABI_VERSION || count == 0) {
      fprintf(stderr, "host: this plug-in speaks another version of the interface\n");
    } else {
      printf("plug-in: %s, importer \"%s\"\n", plugin->name, importer->id);
      result = convert(importer, argv[2], argv[3]);
    }
  }
  dlclose(library); /* only now: every text that the plug-in handed out lives in it */
  return result;
}
