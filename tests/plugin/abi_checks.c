#define _DEFAULT_SOURCE /* MAP_ANONYMOUS is not in POSIX */

#include "plugin/abi_checks.h"

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#define TEXT_OF(x) #x
#define TEXT(x) TEXT_OF(x)
#define CHECK(condition)                                                     \
  do {                                                                       \
    if (!(condition)) return "abi_checks.c:" TEXT(__LINE__) ": " #condition; \
  } while (0)

/* A byte that no answer of the plug-in is made of. */
enum { MARK = 0xA5 };

static int all_bytes(const void* p, size_t n, int value) {
  const unsigned char* bytes = (const unsigned char*)p;
  for (size_t k = 0; k < n; ++k) {
    if (bytes[k] != value) return 0;
  }
  return 1;
}

static const char* text_at(const void* record, size_t offset) {
  const char* out;
  memcpy(&out, (const char*)record + offset, sizeof out);
  return out;
}

static const OKVImporter* importer_of(const AbiSubject* subject) { return subject->importers(NULL); }

const char* abi_load(AbiSubject* subject, const char* module_path) {
  void* const module = dlopen(module_path, RTLD_NOW | RTLD_LOCAL);
  CHECK(module != NULL);
  void* const init = dlsym(module, "okv_plugin_init");
  void* const importers = dlsym(module, "okv_plugin_importers");
  CHECK(init != NULL);
  CHECK(importers != NULL);
  /* Object pointers to function pointers, as POSIX has it. */
  memcpy(&subject->init, &init, sizeof init);
  memcpy(&subject->importers, &importers, sizeof importers);
  return NULL;
}

const char* abi_check_descriptor(const AbiSubject* subject) {
  const OKVPluginDescriptor* const descriptor = subject->init();
  CHECK(descriptor != NULL);
  CHECK(memcmp(descriptor, "\x01\x00\x00\x00\x01\x00\x00\x00", 8) == 0);
  CHECK(strcmp(text_at(descriptor, 8), "importer_hf") == 0);
  CHECK(strcmp(text_at(descriptor, 16), "Real HuggingFace importer plugin (S22-7)") == 0);
  CHECK(all_bytes((const char*)descriptor + 24, 16, 0));
  CHECK(subject->init() == descriptor);
  CHECK(descriptor->abi_version == 1);
  CHECK(descriptor->plugin_version == 1);
  CHECK(descriptor->reserved0 == NULL);
  CHECK(descriptor->reserved1 == NULL);
  return NULL;
}

const char* abi_check_importer(const AbiSubject* subject) {
  const OKVImporter* const importer = importer_of(subject);
  CHECK(importer != NULL);
  CHECK(memcmp(importer, "\x01\x00\x00\x00\x00\x00\x00\x00", 8) == 0);
  CHECK(strcmp(text_at(importer, 8), "hf") == 0);
  CHECK(strcmp(text_at(importer, 16), "HuggingFace directory importer (config + tokenizer + shards)") == 0);
  CHECK(memcmp((const char*)importer + 24, "\x03\x00\x00\x00\x00\x00\x00\x00", 8) == 0);
  CHECK(strcmp(text_at(importer, 32), "hf") == 0);
  CHECK(text_at(importer, 32) == text_at(importer, 8));
  CHECK(!all_bytes((const char*)importer + 40, 8, 0));
  CHECK(!all_bytes((const char*)importer + 48, 8, 0));
  CHECK(!all_bytes((const char*)importer + 56, 8, 0));
  CHECK(importer->capabilities == 3);
  return NULL;
}

const char* abi_check_importer_count(const AbiSubject* subject) {
  uint32_t guarded[3];
  memset(guarded, MARK, sizeof guarded);
  const OKVImporter* const importer = subject->importers(&guarded[1]);
  CHECK(guarded[1] == 1);
  CHECK(all_bytes(&guarded[0], 4, MARK));
  CHECK(all_bytes(&guarded[2], 4, MARK));
  CHECK(subject->importers(NULL) == importer);
  CHECK(subject->importers(&guarded[0]) == importer);
  return NULL;
}

static int probes_as_match(const AbiSubject* subject, const char* path) {
  OKVProbeResult out;
  memset(&out, MARK, sizeof out);
  const OKVImporter* const importer = importer_of(subject);
  return importer->probe(path, &out) == 0 && out.confidence == 100 && out.format == importer->id &&
         out.detail != NULL && out.detail[0] == '\0' && strcmp(out.reason, "directory with config.json") == 0;
}

static int probes_as_foreign(const AbiSubject* subject, const char* path) {
  OKVProbeResult out;
  memset(&out, MARK, sizeof out);
  return importer_of(subject)->probe(path, &out) == 0 && out.confidence == 0 && out.format == NULL &&
         out.detail == NULL && out.reason == NULL;
}

/* good_dir with so many trailing slashes that the whole path has `length` bytes. */
static char* with_slashes(const AbiSubject* subject, char* path, size_t length) {
  const size_t begin = strlen(subject->good_dir);
  memcpy(path, subject->good_dir, begin);
  memset(path + begin, '/', length - begin);
  path[length] = '\0';
  return path;
}

/* A system takes paths of up to 4095 bytes, and "/config.json" has 12: how many slashes were dropped shows
 * there. */
const char* abi_check_probe_slashes(const AbiSubject* subject) {
  char path[4200];
  CHECK(probes_as_match(subject, with_slashes(subject, path, 4084)));   /* one is dropped, */
  CHECK(probes_as_foreign(subject, with_slashes(subject, path, 4085))); /* and not two */
  return NULL;
}

const char* abi_check_probe(const AbiSubject* subject) {
  CHECK(probes_as_match(subject, subject->good_dir));
  CHECK(probes_as_match(subject, subject->slash_dir));
  CHECK(probes_as_match(subject, subject->slashes_dir));
  CHECK(probes_as_match(subject, subject->bad_dir)); /* nothing is opened or read */
  CHECK(probes_as_foreign(subject, subject->empty_dir));
  CHECK(probes_as_foreign(subject, subject->folder_dir));
  CHECK(probes_as_foreign(subject, subject->pipe_dir));
  CHECK(probes_as_foreign(subject, subject->regular_file));
  CHECK(probes_as_foreign(subject, subject->missing_path));
  CHECK(probes_as_foreign(subject, ""));
  return NULL;
}

const char* abi_check_probe_null(const AbiSubject* subject) {
  const OKVImporter* const importer = importer_of(subject);
  OKVProbeResult out;
  memset(&out, MARK, sizeof out);
  CHECK(importer->probe(NULL, &out) == 2);
  CHECK(all_bytes(&out, sizeof out, MARK));
  CHECK(importer->probe(subject->good_dir, NULL) == 2);
  CHECK(importer->probe(NULL, NULL) == 2);
  return NULL;
}

const char* abi_check_inspect(const AbiSubject* subject) {
  const OKVImporter* const importer = importer_of(subject);
  OKVImportInfo out;
  memset(&out, MARK, sizeof out);
  CHECK(importer->inspect(subject->good_dir, &out) == 0);
  CHECK(out.format == importer->id);
  CHECK(strcmp(out.architecture, "llama") == 0);
  CHECK(strcmp(out.count, "") == 0); /* weights are not read, so there is no count: on purpose */
  memset(&out, MARK, sizeof out);
  CHECK(importer->inspect(subject->bad_dir, &out) == 7);
  CHECK(out.format == importer->id);
  CHECK(strcmp(out.architecture, "invalid") == 0);
  CHECK(strcmp(out.count, "0") == 0);
  memset(&out, MARK, sizeof out);
  CHECK(importer->inspect(subject->missing_path, &out) == 2);
  CHECK(out.format == importer->id);
  CHECK(strcmp(out.architecture, "invalid") == 0);
  CHECK(strcmp(out.count, "0") == 0);
  CHECK(importer->inspect(subject->pipe_dir, &out) == 2);
  CHECK(importer->inspect("", &out) == 2);
  CHECK(importer->inspect(subject->slash_dir, &out) == 0);
  CHECK(strcmp(out.architecture, "llama") == 0);
  CHECK(strcmp(out.count, "") == 0);
  return NULL;
}

const char* abi_check_inspect_null(const AbiSubject* subject) {
  const OKVImporter* const importer = importer_of(subject);
  OKVImportInfo out;
  memset(&out, MARK, sizeof out);
  CHECK(importer->inspect(NULL, &out) == 2);
  CHECK(all_bytes(&out, sizeof out, MARK));
  CHECK(importer->inspect(subject->good_dir, NULL) == 2);
  CHECK(importer->inspect(NULL, NULL) == 2);
  return NULL;
}

/* A record with every answer connected; the buffers are marked. */
typedef struct Order {
  OKVImportContext context;
  char text[64];
  uint64_t tensors;
  uint64_t bytes;
} Order;

static void fill_order(Order* order, const AbiSubject* subject) {
  memset(order, MARK, sizeof *order);
  order->context.struct_size = 48;
  order->context.dst_path = subject->dst_path;
  order->context.error_buf = order->text;
  order->context.error_buf_size = sizeof order->text;
  order->context.out_tensor_count = &order->tensors;
  order->context.out_file_size = &order->bytes;
}

static int answers_untouched(const Order* order) {
  return all_bytes(order->text, sizeof order->text, MARK) && all_bytes(&order->tensors, 8, MARK) &&
         all_bytes(&order->bytes, 8, MARK);
}

const char* abi_check_import_null(const AbiSubject* subject) {
  const OKVImporter* const importer = importer_of(subject);
  Order order;
  fill_order(&order, subject);
  CHECK(importer->import(NULL, &order.context) == 2);
  CHECK(answers_untouched(&order));
  CHECK(importer->import(subject->good_dir, NULL) == 2);
  CHECK(importer->import(NULL, NULL) == 2);
  return NULL;
}

const char* abi_check_import_struct_size(const AbiSubject* subject) {
  const OKVImporter* const importer = importer_of(subject);
  static const uint32_t kTooSmall[] = {0, 1, 40, 47};
  for (size_t k = 0; k < sizeof kTooSmall / sizeof *kTooSmall; ++k) {
    Order order;
    fill_order(&order, subject);
    order.context.struct_size = kTooSmall[k];
    const Order before = order;
    CHECK(importer->import(subject->good_dir, &order.context) == 2);
    CHECK(answers_untouched(&order));
    CHECK(memcmp(&order.context, &before.context, sizeof order.context) == 0);
    order.context.dst_path = NULL; /* the size is looked at first: no text for this either */
    CHECK(importer->import(subject->good_dir, &order.context) == 2);
    CHECK(answers_untouched(&order));
  }
  static const uint32_t kLargeEnough[] = {48, 49, 4096, 0xFFFFFFFFu};
  for (size_t k = 0; k < sizeof kLargeEnough / sizeof *kLargeEnough; ++k) {
    Order order;
    fill_order(&order, subject);
    order.context.struct_size = kLargeEnough[k];
    CHECK(importer->import(subject->good_dir, &order.context) == 0);
  }
  return NULL;
}

/* Only the first field of a short record may be read: the rest of it is not even mapped here. */
const char* abi_check_import_short_record(const AbiSubject* subject) {
  const size_t page = (size_t)sysconf(_SC_PAGESIZE);
  char* const pages = (char*)mmap(NULL, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(pages != MAP_FAILED);
  CHECK(mprotect(pages + page, page, PROT_NONE) == 0);
  char* const record = pages + page - 8;
  const uint32_t size = 47;
  memcpy(record, &size, sizeof size);
  void* const context = record;
  CHECK(importer_of(subject)->import(subject->good_dir, (OKVImportContext*)context) == 2);
  CHECK(munmap(pages, 2 * page) == 0);
  return NULL;
}

const char* abi_check_import_null_dst(const AbiSubject* subject) {
  const OKVImporter* const importer = importer_of(subject);
  Order order;
  fill_order(&order, subject);
  order.context.dst_path = NULL;
  CHECK(importer->import(subject->good_dir, &order.context) == 2);
  CHECK(strcmp(order.text, "hf: dst_path is required") == 0);
  CHECK(all_bytes(order.text + 25, sizeof order.text - 25, MARK));
  CHECK(all_bytes(&order.tensors, 8, MARK));
  CHECK(all_bytes(&order.bytes, 8, MARK));

  fill_order(&order, subject);
  order.context.dst_path = NULL;
  order.context.error_buf = NULL;
  CHECK(importer->import(subject->good_dir, &order.context) == 2);
  CHECK(answers_untouched(&order));

  fill_order(&order, subject);
  order.context.dst_path = NULL;
  order.context.error_buf_size = 0;
  CHECK(importer->import(subject->good_dir, &order.context) == 2);
  CHECK(answers_untouched(&order));

  fill_order(&order, subject);
  order.context.dst_path = NULL;
  order.context.error_buf_size = 1;
  CHECK(importer->import(subject->good_dir, &order.context) == 2);
  CHECK(order.text[0] == '\0');
  CHECK(all_bytes(order.text + 1, sizeof order.text - 1, MARK));

  fill_order(&order, subject);
  order.context.dst_path = NULL;
  order.context.error_buf_size = 4;
  CHECK(importer->import(subject->good_dir, &order.context) == 2);
  CHECK(memcmp(order.text, "hf:\0", 4) == 0);
  CHECK(all_bytes(order.text + 4, sizeof order.text - 4, MARK));
  return NULL;
}

/* "hf: bad config.json" is 19 bytes and a NUL. */
const char* abi_check_import_error_text(const AbiSubject* subject) {
  static const char kText[] = "hf: bad config.json";
  const OKVImporter* const importer = importer_of(subject);
  for (uint64_t size = 0; size <= 22; ++size) {
    Order order;
    fill_order(&order, subject);
    order.context.error_buf_size = size;
    CHECK(importer->import(subject->bad_dir, &order.context) == 7);
    const size_t kept = size == 0 ? 0 : size <= strlen(kText) ? (size_t)size - 1 : strlen(kText);
    CHECK(memcmp(order.text, kText, kept) == 0);
    if (size > 0) CHECK(order.text[kept] == '\0');
    const size_t written = size == 0 ? 0 : kept + 1;
    CHECK(all_bytes(order.text + written, sizeof order.text - written, MARK));
    CHECK(all_bytes(&order.tensors, 8, MARK));
    CHECK(all_bytes(&order.bytes, 8, MARK));
  }
  Order order;
  fill_order(&order, subject);
  order.context.error_buf = NULL;
  CHECK(importer->import(subject->bad_dir, &order.context) == 7);
  CHECK(answers_untouched(&order));
  CHECK(importer->import(subject->missing_path, &order.context) == 2);
  return NULL;
}

const char* abi_check_import_success(const AbiSubject* subject) {
  const OKVImporter* const importer = importer_of(subject);
  Order order;
  fill_order(&order, subject);
  CHECK(importer->import(subject->good_dir, &order.context) == 0);
  struct stat info;
  CHECK(stat(subject->dst_path, &info) == 0);
  CHECK(order.tensors == 1);
  CHECK(order.bytes == (uint64_t)info.st_size);
  CHECK(all_bytes(order.text, sizeof order.text, MARK)); /* a success has no text */

  fill_order(&order, subject);
  order.context.out_tensor_count = NULL;
  order.context.out_file_size = NULL;
  CHECK(importer->import(subject->good_dir, &order.context) == 0);
  CHECK(answers_untouched(&order));

  fill_order(&order, subject);
  order.context.out_tensor_count = NULL;
  CHECK(importer->import(subject->slash_dir, &order.context) == 0);
  CHECK(order.bytes == (uint64_t)info.st_size);

  fill_order(&order, subject);
  order.context.out_file_size = NULL;
  order.context.error_buf = NULL;
  CHECK(importer->import(subject->slashes_dir, &order.context) == 0);
  CHECK(order.tensors == 1);
  return NULL;
}
