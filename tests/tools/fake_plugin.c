/* A plug-in for tests of the command: what its import does is the last part of the source path.
 * FAKE_DESCRIPTOR_ABI, FAKE_IMPORTER_ABI and FAKE_COUNT make it lie; FAKE_NO_EXPORTS makes it no plug-in. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "plugin/host_abi.h"

#ifndef FAKE_DESCRIPTOR_ABI
#define FAKE_DESCRIPTOR_ABI OKV_ABI_VERSION
#endif
#ifndef FAKE_IMPORTER_ABI
#define FAKE_IMPORTER_ABI OKV_ABI_VERSION
#endif
#ifndef FAKE_COUNT
#define FAKE_COUNT 1
#endif

static void writeFile(const char* path, const char* text) {
  FILE* file = fopen(path, "wb");
  if (file == NULL) return;
  fputs(text, file);
  fclose(file);
}

static const char* orderIn(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash != NULL ? slash + 1 : path;
}

static int32_t fakeProbe(const char* path, OKVProbeResult* out) {
  memset(out, 0, sizeof *out);
  return atoi(orderIn(path));
}

static int32_t fakeInspect(const char* path, OKVImportInfo* out) {
  out->format = "hf";
  out->architecture = "evil\x1b[2J";
  out->count = "";
  return atoi(orderIn(path));
}

/* "7": fails with that code and a text; "7-silent": without a text; "wait": writes a part and never returns;
 * "race": creates out.okv2 beside the destination; anything else succeeds. */
static int32_t fakeImport(const char* path, OKVImportContext* ctx) {
  const char* order = orderIn(path);
  writeFile(ctx->dst_path, "part");
  if (strcmp(order, "wait") == 0) {
    for (;;)
      pause();
  }
  if (strcmp(order, "race") == 0) {
    char other[4096];
    const char* slash = strrchr(ctx->dst_path, '/');
    snprintf(other, sizeof other, "%.*s/out.okv2", (int)(slash - ctx->dst_path), ctx->dst_path);
    writeFile(other, "the other's");
  }
  if (atoi(order) != 0) {
    if (strstr(order, "silent") == NULL) snprintf(ctx->error_buf, ctx->error_buf_size, "fake: bad\nnews");
    return atoi(order);
  }
  *ctx->out_tensor_count = 3;
  *ctx->out_file_size = 4;
  return OKV_OK;
}

static const OKVPluginDescriptor kDescriptor = {FAKE_DESCRIPTOR_ABI, 1, "fake", "A fake", NULL, NULL};
static const OKVImporter kImporter = {
    FAKE_IMPORTER_ABI, "hf", "A fake", 3, "hf", fakeProbe, fakeInspect, fakeImport,
};

#ifdef FAKE_NO_EXPORTS
#define EXPORT static __attribute__((unused))
#define okv_plugin_init hiddenInit
#define okv_plugin_importers hiddenImporters
#else
#define EXPORT __attribute__((visibility("default")))
#endif

EXPORT const OKVPluginDescriptor* okv_plugin_init(void) { return &kDescriptor; }
EXPORT const OKVImporter* okv_plugin_importers(uint32_t* count) {
  if (count != NULL) *count = FAKE_COUNT;
  return &kImporter;
}
