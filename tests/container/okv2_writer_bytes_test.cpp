// Every byte of two containers, written out by hand.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "bitwise_crc64.h"
#include "container/bytes.h"
#include "container/okv2_writer.h"
#include "support/hexdump.h"
#include "writer_fixture.h"

namespace zel {
namespace {

using test::bytesOfDump;
using test::containerOf;
using test::hexLines;

constexpr std::string_view kMinimal = R"dump(
; ---- header
@0    "OKV2"                       ; magic
@4    02 00 00 00                  ; version
@8    04 03 02 01                  ; byte-order mark 0x01020304
@12   07 00 00 00                  ; sections
@16   00 00 00 00                  ; model info: no setModelInfo, so zeros
@20   00 00 00 00                  ; reserved
@24   00 00 00 00 00 00 00 00      ; model info, the 64-bit value
@32   00 00 00 00
@36   00 00 00 00
@40   01 00 00 00 00 00 00 00      ; tensors
@48   00 00 00 00 00 00 00 00      ; reserved
@56   75 94 B2 84 F0 BB 29 3D      ; checksum of bytes 0..55 and 64..231
; ---- section table: type, reserved, offset, size; in the order of the types
@64   01 00 00 00  00 00 00 00  00 01 00 00 00 00 00 00  04 00 00 00 00 00 00 00   ; metadata at 256, 4
@88   02 00 00 00  00 00 00 00  40 01 00 00 00 00 00 00  29 00 00 00 00 00 00 00   ; tokenizer at 320, 41
@112  03 00 00 00  00 00 00 00  80 01 00 00 00 00 00 00  00 00 00 00 00 00 00 00   ; graph at 384, empty
@136  04 00 00 00  00 00 00 00  80 01 00 00 00 00 00 00  80 00 00 00 00 00 00 00   ; index at 384, 128
@160  05 00 00 00  00 00 00 00  80 02 00 00 00 00 00 00  40 00 00 00 00 00 00 00   ; weights at 640, 64
@184  06 00 00 00  00 00 00 00  00 02 00 00 00 00 00 00  20 00 00 00 00 00 00 00   ; layout at 512, 32
@208  07 00 00 00  00 00 00 00  40 02 00 00 00 00 00 00  08 00 00 00 00 00 00 00   ; chat at 576, 8
@232  00*24
; ---- metadata
@256  00 00 00 00                  ; no items
@260  00*60
; ---- tokenizer: the empty one
@320  "TKNZ"
@324  00 00 00 00                  ; chat template of 0 bytes
@328  00 00 00 00                  ; tokens
@332  00 00 00 00                  ; scores
@336  00 00 00 00                  ; types
@340  00 00 00 00                  ; merges
@344  FF FF FF FF FF FF FF FF      ; no bos, no eos
@352  FF FF FF FF FF FF FF FF      ; no unk, no pad
@360  01                           ; addBos is true by default
@361  00*23
; ---- graph: no byte at all
; ---- tensor index
@384  "w" 00*63                    ; name
@448  01 00                        ; its length
@450  00 00                        ; F32
@452  01 00                        ; dimensions
@454  00 00
@456  02 00 00 00 00 00 00 00      ; 2 elements
@464  00*24                        ; unused dimensions
@488  00 00 00 00 00 00 00 00      ; offset in the weights
@496  08 00 00 00 00 00 00 00      ; bytes
@504  00*8
; ---- tensor layout
@512  00 00                        ; F32
@514  01 00                        ; elements per block
@516  04 00 00 00                  ; bytes per block
@520  00*24                        ; three zero layout values and the reserve
@544  00*32
; ---- chat template: written even when empty
@576  00 00 00 00 00 00 00 00
@584  00*56
; ---- weights
@640  00 00 80 3F  00 00 00 40     ; 1.0, 2.0
@648  00*56
@704
)dump";

constexpr std::string_view kFull = R"dump(
; ---- header
@0    "OKV2" 02 00 00 00 04 03 02 01 07 00 00 00
@16   14 13 12 11                  ; model info, first value
@20   00 00 00 00
@24   28 27 26 25 24 23 22 21      ; second value
@32   34 33 32 31                  ; third value
@36   44 43 42 41                  ; fourth value
@40   03 00 00 00 00 00 00 00      ; tensors
@48   00*8
@56   40 7D 4F 69 02 8B 90 30      ; checksum of bytes 0..55 and 64..231
; ---- section table
@64   01 00 00 00  00*4  00 01 00 00 00*4  5A 00 00 00 00*4   ; metadata at 256, 90
@88   02 00 00 00  00*4  80 01 00 00 00*4  4E 00 00 00 00*4   ; tokenizer at 384, 78
@112  03 00 00 00  00*4  00 02 00 00 00*4  05 00 00 00 00*4   ; graph at 512, 5
@136  04 00 00 00  00*4  40 02 00 00 00*4  80 01 00 00 00*4   ; index at 576, 3 x 128
@160  05 00 00 00  00*4  80 04 00 00 00*4  C0 01 00 00 00*4   ; weights at 1152, 256 + 128 + 64
@184  06 00 00 00  00*4  C0 03 00 00 00*4  60 00 00 00 00*4   ; layout at 960, 3 x 32
@208  07 00 00 00  00*4  40 04 00 00 00*4  0D 00 00 00 00*4   ; chat at 1088, 8 + 5
@232  00*24
; ---- metadata: count, then key length, key, type, value
@256  06 00 00 00
@260  05 00 "m.u32" 00  EF BE AD DE
@272  05 00 "m.i32" 01  FE FF FF FF
@284  05 00 "m.f32" 02  00 00 C0 3F
@296  05 00 "m.u64" 03  08 07 06 05 04 03 02 01
@312  05 00 "m.str" 04  02 00 00 00 "hi"
@326  05 00 "m.arr" 05  02 00 00 00  01 00 00 00  FF FF FF FF
@346  00*38
; ---- tokenizer
@384  "TKNZ"
@388  02 00 00 00 "T1"                           ; its own chat template comes first
@394  02 00 00 00  03 00 00 00 "<s>"  01 00 00 00 "a"
@410  01 00 00 00  00 00 00 BF                   ; one score, -0.5
@418  03 00 00 00  03 00 00 00 01 00 00 00 FF FF FF FF   ; three types, although there are two tokens
@434  01 00 00 00  03 00 00 00 "a b"
@445  00 00 00 00                                ; bos
@449  01 00 00 00                                ; eos
@453  FF FF FF FF                                ; no unk
@457  02 00 00 00                                ; pad
@461  00                                         ; addBos
@462  00*50
; ---- graph
@512  DE AD BE EF 01
@517  00*59
; ---- tensor index: by name, a prefix before the longer name
@576  "emb" 00*61  03 00  07 00  02 00  00 00
@648  00 01 00 00 00*4   01 00 00 00 00*4   00*8  00*8
@680  00*8                                       ; offset 0
@688  D2 00 00 00 00*4   00*8                    ; 210 bytes
@704  "norm" 00*60  04 00  02 00  04 00  00 00
@776  01 00*7  02 00*7  03 00*7  08 07 06 05 04 03 02 01
@808  00 01 00 00 00*4   41 00 00 00 00*4  00*8   ; offset 256, 65 bytes
@832  "norm.b" 00*58  06 00  01 00  01 00  00 00
@904  03 00*7  00*24
@936  80 01 00 00 00*4   06 00 00 00 00*4  00*8   ; offset 384, 6 bytes
; ---- tensor layout, in the order of the index
@960  07 00  00 01  D2 00 00 00  10 00 00 00  C0 00 00 00  D0 00 00 00  00*12   ; 256 in 210: 16, 192, 208
@992  02 00  01 00  02 00 00 00  00*12  00*12
@1024 01 00  01 00  02 00 00 00  00*12  00*12
@1056 00*32
; ---- chat template
@1088 05 00 00 00 00 00 00 00 "{{x}}"
@1101 00*51
; ---- weights
@1152 11*128 22*64 33*16 44 55
@1362 00*46
@1408 A5*64 5A
@1473 00*63
@1536 01 02 03 04 05 06
@1542 00*58
@1600
)dump";

TEST(OKV2WriterBytes, TheSmallestContainerIsThisDump) {
  OKV2Writer writer;
  test::fillMinimal(writer);
  EXPECT_EQ(hexLines(containerOf(writer)), hexLines(bytesOfDump(kMinimal)));
}

TEST(OKV2WriterBytes, AContainerWithEverythingIsThisDump) {
  OKV2Writer writer;
  test::fillFull(writer);
  EXPECT_EQ(hexLines(containerOf(writer)), hexLines(bytesOfDump(kFull)));
}

TEST(OKV2WriterBytes, TheDumpsChecksumsAreThoseOfTheirHeaderAndTable) {
  const std::string minimal = bytesOfDump(kMinimal);
  EXPECT_EQ(loadU64(minimal.data() + 56), test::headerChecksum(minimal));
  const std::string full = bytesOfDump(kFull);
  EXPECT_EQ(loadU64(full.data() + 56), test::headerChecksum(full));
}

TEST(OKV2WriterBytes, WritingTwiceGivesTheSameFile) {
  OKV2Writer writer;
  test::fillFull(writer);
  const std::string first = containerOf(writer);
  EXPECT_EQ(hexLines(containerOf(writer)), hexLines(first));
}

TEST(OKV2WriterBytes, EqualInputsInTwoWritersGiveEqualFiles) {
  OKV2Writer one;
  test::fillFull(one);
  OKV2Writer other;
  test::fillFull(other);
  EXPECT_EQ(containerOf(one), containerOf(other));
}

TEST(OKV2WriterBytes, TheChecksumCoversHeaderAndTableButNotTheSections) {
  OKV2Writer one;
  test::addBytes(one, "w", "aaaa");
  OKV2Writer other;
  test::addBytes(other, "w", "bbbb");
  const std::string a = containerOf(one);
  const std::string b = containerOf(other);
  EXPECT_NE(a, b);
  EXPECT_EQ(loadU64(a.data() + 56), loadU64(b.data() + 56));

  OKV2Writer longer;
  test::addBytes(longer, "w", std::string(65, 'a'));
  EXPECT_NE(loadU64(containerOf(longer).data() + 56), loadU64(a.data() + 56));
}

// A container written over a longer file must not keep the old tail.
TEST(OKV2WriterBytes, AnExistingFileIsReplacedWhole) {
  OKV2Writer writer;
  test::fillMinimal(writer);
  const test::TempDir dir;
  const std::string path = dir.write("out.okv2", std::string(100000, 'x'));
  ASSERT_THAT(writer.write(path.c_str()), test::IsOk());
  EXPECT_EQ(hexLines(test::readWholeFile(path)), hexLines(bytesOfDump(kMinimal)));
}

}  // namespace
}  // namespace zel
