// The reader against a second one, written plainly over the JSON tree: same verdict, same message, same
// entries over many generated headers, good and broken.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hf/json.h"
#include "readers/safetensors_importer.h"
#include "support/safetensors_builder.h"
#include "support/status_matchers.h"

namespace zel::test {
namespace {

// ---- the plain reader

struct PlainEntry {
  std::string name;
  std::uint16_t dtype = 0;
  std::vector<std::uint64_t> dims;
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

struct PlainType {
  std::string_view text;
  std::uint16_t dtype;
  std::uint64_t rows;  // elements of the first extent in one unit
  std::uint64_t bytes;
};
constexpr PlainType kPlainTypes[] = {{"F32", 0, 1, 4},      {"F16", 1, 1, 2},      {"BF16", 2, 1, 2},
                                     {"Q4_K", 5, 256, 144}, {"Q5_K", 6, 256, 176}, {"Q6_K", 7, 256, 210}};

// An integral double from 0 up to, but not including, 2^63.
bool isCount(const json::Value& value, std::uint64_t& out) {
  if (!value.isNumber() || !(value.number >= 0) || !(value.number < 9223372036854775808.0)) return false;
  out = std::uint64_t(value.number);
  return double(out) == value.number;
}

// Exact, or all ones when the product needs more than 64 bits.
std::uint64_t product(const std::vector<std::uint64_t>& factors) {
  if (std::find(factors.begin(), factors.end(), 0u) != factors.end()) return 0;
  std::uint64_t out = 1;
  for (const std::uint64_t factor : factors) {
    if (out > std::numeric_limits<std::uint64_t>::max() / factor)
      return std::numeric_limits<std::uint64_t>::max();
    out *= factor;
  }
  return out;
}

Status readPlainEntry(const json::Value::Member& member, std::uint64_t dataBytes, PlainEntry& out) {
  const auto& [name, value] = member;
  const json::Value* const dtype = value.get("dtype");
  const json::Value* const shape = value.get("shape");
  const json::Value* const offsets = value.get("data_offsets");
  if (!dtype || !dtype->isString() || !shape || !shape->isArray() || !offsets || !offsets->isArray() ||
      offsets->items.size() != 2) {
    return corrupted("safetensors: bad tensor entry '" + name + "'");
  }
  const PlainType* type = nullptr;
  for (const PlainType& each : kPlainTypes) {
    if (each.text == dtype->text) type = &each;
  }
  if (!type) return unsupported("safetensors: unsupported dtype '" + dtype->text + "'");
  out.name = name;
  out.dtype = type->dtype;

  if (shape->items.size() > 4) return corrupted("safetensors: ndim > 4");
  for (const json::Value& item : shape->items) {
    std::uint64_t dim = 0;
    if (!isCount(item, dim)) return corrupted("safetensors: bad shape");
    out.dims.push_back(dim);
  }
  if (!isCount(offsets->items[0], out.begin) || !isCount(offsets->items[1], out.end) || out.begin > out.end) {
    return corrupted("safetensors: bad offsets");
  }
  if (out.end > dataBytes) return corrupted("safetensors: offset out of range '" + name + "'");

  std::vector<std::uint64_t> factors = out.dims;
  factors.push_back(type->bytes);
  if (type->rows > 1) {
    if (out.dims.empty() || out.dims[0] == 0) return corrupted("safetensors: zero rows");
    factors[0] = out.dims[0] / type->rows + (out.dims[0] % type->rows != 0 ? 1 : 0);
  }
  const std::uint64_t expected = product(factors);
  if (out.end - out.begin != expected) {
    return corrupted("safetensors: size mismatch '" + name + "' (expected " + std::to_string(expected) +
                     " got " + std::to_string(out.end - out.begin) + ")");
  }
  return {};
}

Status readPlainly(const std::string& file, std::vector<PlainEntry>& out) {
  if (file.size() < 8) return corrupted("safetensors: file too small");
  std::uint64_t length = 0;
  for (int k = 7; k >= 0; --k)
    length = length << 8 | static_cast<unsigned char>(file[std::size_t(k)]);
  if (length > 1073741824 || file.size() < length + 8) return corrupted("safetensors: bad header length");
  json::Value root;
  if (!json::parse(file.data() + 8, length, root).ok()) return corrupted("safetensors: header JSON");
  if (!root.isObject()) return corrupted("safetensors: header not an object");
  for (const json::Value::Member& member : root.members) {
    if (member.first == "__metadata__") continue;
    PlainEntry entry;
    if (Status status = readPlainEntry(member, file.size() - 8 - length, entry); !status.ok()) return status;
    out.push_back(std::move(entry));
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const PlainEntry& a, const PlainEntry& b) { return a.name < b.name; });
  return {};
}

// ---- generated headers

class Generator {
 public:
  explicit Generator(unsigned seed) : random_(seed) {}

  std::string file() {
    SafetensorsBuilder builder;
    std::uint64_t dataBytes = 0;
    for (std::size_t k = pick(6); k > 0; --k) {
      builder.rawMember(key(), oneIn(12) ? junk(3) : entry(dataBytes));
    }
    if (oneIn(25)) builder.headerJson(junk(2));
    if (oneIn(4)) builder.afterHeader(oneIn(4) ? "x" : " \n\t");
    const std::string honest = builder.header();
    if (oneIn(8)) builder.headerJson(damaged(honest)).afterHeader("");
    if (oneIn(8) && dataBytes > 0) --dataBytes;
    if (oneIn(40)) builder.headerLength(pick(1000));
    return builder.dataBytes(dataBytes).bytes();
  }

 private:
  std::size_t pick(std::size_t below) { return random_() % below; }
  bool oneIn(std::size_t n) { return pick(n) == 0; }
  template <std::size_t N>
  std::string oneOf(const char* const (&texts)[N]) {
    return texts[pick(N)];
  }

  std::string key() {
    static constexpr const char* kKeys[] = {R"("a")",
                                            R"("b")",
                                            R"("w")",
                                            R"("model.layers.0.x")",
                                            R"("__metadata__")",
                                            R"("\u0061")",
                                            R"("\u005f_metadata__")",
                                            R"("")",
                                            "\"\xC3\xA9\"",
                                            R"("q\"\\")",
                                            R"("a\u0000")",
                                            R"("\u00e9")"};
    return oneOf(kKeys);
  }

  // Any small JSON value.
  std::string junk(int depth) {
    static constexpr const char* kLeaves[] = {"1",       "-1", "0.5", "null",  "true",
                                              "\"F32\"", "{}", "[]",  "1e400", "\"\\u0041\""};
    if (depth == 0 || !oneIn(3)) return oneOf(kLeaves);
    const std::string inner = junk(depth - 1);
    return oneIn(2) ? "[" + inner + "," + junk(depth - 1) + "]"
                    : "{\"dtype\":" + inner + ",\"k\":[" + inner + "]}";
  }

  std::string entry(std::uint64_t& dataBytes) {
    std::string dtype = std::string(kPlainTypes[pick(std::size(kPlainTypes))].text);
    SafetensorsBuilder::Dims dims(pick(5));
    for (std::uint64_t& dim : dims)
      dim = oneIn(10) ? 0 : oneIn(4) ? 250 + pick(20) : 1 + pick(4);
    const bool scalarOfBlocks = dims.empty() && dtype[0] == 'Q';
    const std::uint64_t begin = oneIn(3) ? pick(20) : dataBytes;
    std::uint64_t size = scalarOfBlocks ? 0 : SafetensorsBuilder::sizeOf(dtype, dims);
    if (size > 100000) {
      dims.assign(1, 1);
      size = SafetensorsBuilder::sizeOf(dtype, dims);
    }
    dataBytes = std::max(dataBytes, begin + size);

    std::string shape;
    for (const std::uint64_t dim : dims)
      shape += (shape.empty() ? "" : ",") + std::to_string(dim);
    std::vector<std::pair<std::string, std::string>> members = {
        {oneIn(8) ? R"("\u0064type")" : R"("dtype")", jsonQuote(dtype)},
        {oneIn(8) ? R"("sh\u0061pe")" : R"("shape")", "[" + shape + "]"},
        {R"("data_offsets")",
         "[" + std::to_string(begin) + (oneIn(8) ? ".0," : ", ") + std::to_string(begin + size) + "]"}};
    if (oneIn(5)) lie(members);
    if (oneIn(6)) members.emplace_back(R"("extra")", junk(3));
    if (oneIn(6)) members.emplace_back(members[pick(3)].first, junk(2));
    for (std::size_t k = members.size(); k > 1; --k)
      std::swap(members[k - 1], members[pick(k)]);
    std::string out;
    for (const auto& [name, value] : members)
      out += (out.empty() ? "" : ",") + name + ":" + value;
    return "{" + out + "}";
  }

  void lie(std::vector<std::pair<std::string, std::string>>& members) {
    static constexpr const char* kDtypes[] = {"\"I64\"", "\"f32\"", "\"\"", "1", "null", "\"F\\u00332\""};
    static constexpr const char* kShapes[] = {"[1,1,1,1,1]",
                                              "[-1]",
                                              "[1.5]",
                                              "[\"1\"]",
                                              "[1e400]",
                                              "{}",
                                              "null",
                                              "[9223372036854775808]",
                                              "[4294967296,4294967296]",
                                              "[0]",
                                              "[-0]",
                                              "[4294967296,4294967296,0]",
                                              "[9223372036854774784]",
                                              "[[1]]"};
    static constexpr const char* kOffsets[] = {"[8,4]",  "[0]",       "[0,0,0]",
                                               "[-1,4]", "[0,1e400]", "[0.5,4]",
                                               "[]",     "[null,4]",  "[0,9223372036854775807]",
                                               "{}",     "[0,4]",     "[0,144]"};
    switch (pick(4)) {
      case 0: members[0].second = oneOf(kDtypes); break;
      case 1: members[1].second = oneOf(kShapes); break;
      case 2: members[2].second = oneOf(kOffsets); break;
      default:
        members.erase(members.begin() + std::ptrdiff_t(pick(3)));
        members.emplace_back("\"pad\"", "0");
        break;
    }
  }

  // One byte dropped, doubled or changed.
  std::string damaged(std::string text) {
    const std::size_t at = pick(text.size());
    static constexpr char kBytes[] = "{}[]\",:\\u0 -9etnf\x01\xFF";
    switch (pick(3)) {
      case 0: return text.erase(at, 1);
      case 1: return text.insert(at, 1, text[at]);
      default: text[at] = kBytes[pick(sizeof(kBytes) - 1)]; return text;
    }
  }

  std::mt19937 random_;
};

// ---- the comparison

// Leaves the verdict of the plain reader in `message`.
void expectAgreement(const std::string& file, std::string& message) {
  SCOPED_TRACE("header " + file.substr(std::min<std::size_t>(8, file.size()), 600));
  std::vector<PlainEntry> expected;
  const Status plain = readPlainly(file, expected);
  message = plain.message();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), StatusIs(plain.code(), plain.message()));
  if (!plain.ok()) return;

  ASSERT_EQ(importer.tensors().size(), expected.size());
  for (std::size_t k = 0; k < expected.size(); ++k) {
    const StTensorInfo& actual = importer.tensors()[k];
    ASSERT_EQ(actual.name, expected[k].name);
    ASSERT_EQ(std::uint16_t(actual.dtype), expected[k].dtype);
    ASSERT_EQ(actual.ndim, expected[k].dims.size());
    std::vector<std::uint64_t> dims = expected[k].dims;
    dims.resize(4);
    ASSERT_THAT(actual.dims, testing::ElementsAreArray(dims));
    ASSERT_EQ(actual.dataBegin, expected[k].begin);
    ASSERT_EQ(actual.dataEnd, expected[k].end);
    ASSERT_EQ(actual.size, expected[k].end - expected[k].begin);
  }
}

// The format's own writer spells every entry alike, and such entries are read in a way of their own.
TEST(SafetensorsReference, AgreesWhereAnyByteOfAUsualHeaderIsAnother) {
  const std::string header =
      R"({"__metadata__":{"format":"pt"},"a":{"dtype":"F32","shape":[2,1],"data_offsets":[0,8]},)"
      R"("b":{"dtype":"Q4_K","shape":[1,1,1,1],"data_offsets":[8,152]},)"
      R"("c":{"dtype":"BF16","shape":[],"data_offsets":[152,154]}})";
  const auto file = [](const std::string& json) {
    std::string length(8, '\0');
    length[0] = char(json.size() % 256);
    length[1] = char(json.size() / 256);
    return length + json + std::string(154, 'd');
  };
  std::map<std::string, int> verdicts;
  std::string message;
  expectAgreement(file(header), message);
  ASSERT_EQ(message, "");
  const auto check = [&](const std::string& json) {
    expectAgreement(file(json), message);
    ++verdicts[message.substr(0, 24)];
  };
  for (std::size_t at = 0; at < header.size(); ++at) {
    for (const char byte :
         {'{', '}', '[', ']', '"', ',', ':', '\\', ' ', '0', '1', '9', '-', '.', 'e', 'F', '\x01', '\xFF'}) {
      std::string other = header;
      other[at] = byte;
      check(other);
      other = header;
      check(other.insert(at, 1, byte));
      if (HasFatalFailure()) return;
    }
    check(std::string(header).erase(at, 1));
    check(header.substr(0, at));
    if (HasFatalFailure()) return;
  }
  for (const char* met : {"", "safetensors: header JSON", "safetensors: bad tensor ",
                          "safetensors: unsupported", "safetensors: bad shape", "safetensors: bad offsets",
                          "safetensors: offset out ", "safetensors: zero rows", "safetensors: size mismat"}) {
    EXPECT_GT(verdicts[met], 0) << '"' << met << '"';
  }
}

TEST(SafetensorsReference, AgreesOverGeneratedHeaders) {
  std::map<std::string, int> verdicts;
  for (unsigned seed = 0; seed < 2000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::string message;
    expectAgreement(Generator(seed).file(), message);
    if (HasFatalFailure()) return;
    ++verdicts[message.substr(0, 24)];
  }
  // The generator is worth its name only while it reaches every verdict, success included.
  for (const char* message :
       {"", "safetensors: bad header ", "safetensors: header JSON", "safetensors: header not ",
        "safetensors: bad tensor ", "safetensors: unsupported", "safetensors: ndim > 4",
        "safetensors: bad shape", "safetensors: bad offsets", "safetensors: offset out ",
        "safetensors: zero rows", "safetensors: size mismat"}) {
    EXPECT_GT(verdicts[message], 0) << '"' << message << '"';
  }
  EXPECT_GT(verdicts[""], 200);
}

}  // namespace
}  // namespace zel::test
