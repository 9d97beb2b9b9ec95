#include "okv2/explain/disguise.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <iterator>

#include "container/open_file.h"
#include "hf/json.h"
#include "okv2/container_cursor.h"
#include "okv2/container_file.h"

namespace zel::explain {
namespace {

// The first line of every Git LFS pointer file.
constexpr std::string_view kLfsLine = "version https://git-lfs";
constexpr std::string_view kZipStart = "PK\x03\x04";
constexpr std::string_view kZipEnd = "PK\x05\x06";
constexpr std::size_t kZipEndMaxBytes = 22 + 65535;
constexpr std::uint64_t kMaxHeaderBytes = std::uint64_t{1} << 30;
constexpr std::size_t kMaxLinkBytes = 1024;

// A name as model directories have them; the target of a link to the file beside it is no more.
bool isFileName(std::string_view text) {
  constexpr std::string_view kSuffixes[] = {".json", ".safetensors", ".bin", ".model", ".txt", ".jinja"};
  const bool isPlain = std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return c < 0x80 && (std::isalnum(c) != 0 || c == '.' || c == '-' || c == '_');
  });
  return isPlain && std::any_of(std::begin(kSuffixes), std::end(kSuffixes), [&](std::string_view suffix) {
           return text.size() > suffix.size() && text.ends_with(suffix);
         });
}

// A path and nothing else: what Git writes for a link where links are not supported.
bool isLinkText(std::string_view head, std::uint64_t bytes) {
  if (bytes > kMaxLinkBytes || head.size() != bytes) return false;
  while (!head.empty() && (head.back() == '\n' || head.back() == '\r'))
    head.remove_suffix(1);
  if (head.find('/') == std::string_view::npos) return isFileName(head);
  if (head[0] == '{' || head[0] == '[' || head[0] == '"' || head[0] == '<') return false;
  return std::all_of(head.begin(), head.end(), [](unsigned char c) { return c > 0x20 && c != 0x7F; });
}

bool isWebPage(std::string_view head) {
  if (head.starts_with("\xEF\xBB\xBF")) head.remove_prefix(3);
  const std::size_t begin = head.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos) return false;
  const std::string start = lowerCase(head.substr(begin, 16));
  return start.starts_with("<!doctype html") || start.starts_with("<html") || start.starts_with("<?xml") ||
         start.starts_with("<head") || start.starts_with("<!--");
}

// The header of a safetensors file says how many bytes follow it.
bool safetensorsEndsEarly(std::string_view file) {
  if (file.size() < 8) return false;
  const auto headerBytes = tool::littleEndian<std::uint64_t>(file.substr(0, 8));
  if (headerBytes < 2 || headerBytes > kMaxHeaderBytes) return false;
  if (headerBytes > file.size() - 8) return file.size() == 8 || file[8] == '{';
  json::Value header;
  if (!json::parse(file.data() + 8, headerBytes, header).ok()) return false;
  const std::uint64_t present = file.size() - 8 - headerBytes;
  for (const auto& [name, entry] : header.members) {
    const json::Value* offsets = entry.get("data_offsets");
    if (offsets == nullptr || offsets->items.size() != 2) continue;
    std::int64_t end = 0;
    if (offsets->items[1].isNumber() && json::toInt64(offsets->items[1].number, end) && end > 0 &&
        static_cast<std::uint64_t>(end) > present) {
      return true;
    }
  }
  return false;
}

bool zipEndsEarly(std::string_view file) {
  const std::size_t from = file.size() > kZipEndMaxBytes ? file.size() - kZipEndMaxBytes : 0;
  return file.find(kZipEnd, from) == std::string_view::npos;
}

}  // namespace

std::string lowerCase(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
  return out;
}

Disguise disguiseOf(std::string_view head, std::uint64_t bytes) {
  if (bytes == 0) return Disguise::Empty;
  if (head.starts_with(kLfsLine)) return Disguise::LfsPointer;
  if (isLinkText(head, bytes)) return Disguise::LinkText;
  if (isWebPage(head)) return Disguise::WebPage;
  return Disguise::None;
}

bool lookAt(const std::string& path, FileLook& out) {
  const int fd = openFile(path.c_str(), O_RDONLY);
  if (fd < 0) {
    out.isDenied = errno == EACCES;
    return false;
  }
  struct stat status;
  const bool known = ::fstat(fd, &status) == 0;
  if (known && !S_ISREG(status.st_mode)) {
    out.disguise = Disguise::NotRegular;
  } else if (known) {
    out.bytes = static_cast<std::uint64_t>(status.st_size);
    out.head.resize(std::min<std::uint64_t>(kHeadBytes, out.bytes));
    const ssize_t got = ::read(fd, out.head.data(), out.head.size());
    out.head.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    out.disguise = disguiseOf(out.head, out.bytes);
  }
  ::close(fd);
  return known;
}

bool endsEarly(const std::string& path, const FileLook& look) {
  if (look.disguise != Disguise::None) return false;
  tool::ContainerFile file;
  std::string reason;
  if (file.open(path, reason) != tool::ContainerFile::Result::Ok) return false;
  return look.head.starts_with(kZipStart) ? zipEndsEarly(file.bytes()) : safetensorsEndsEarly(file.bytes());
}

bool isPartName(std::string_view name) {
  for (const std::string_view suffix :
       {".incomplete", ".part", ".partial", ".crdownload", ".aria2", ".download"}) {
    if (name.ends_with(suffix)) return true;
  }
  return false;
}

}  // namespace zel::explain
