#include "okv2/html_page.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>

#include "okv2/container_json.h"
#include "okv2/container_text.h"
#include "okv2/escape.h"
#include "okv2/html_assets.h"
#include "okv2/import_progress.h"

namespace zel::tool {
namespace {

using okv2::SectionType;

constexpr std::size_t kTokenSample = 200;
constexpr double kSmallestShown = 0.0005;  // of the width; smaller pieces share what is left over

std::string show(std::string_view text) { return htmlEscaped(escaped(text)); }

std::string bytesText(std::uint64_t bytes) { return humanBytes(static_cast<double>(bytes)); }

// "blk.12" of "blk.12.attn_q.weight"; "other" for tensors of no layer.
std::string layerOf(std::string_view name) {
  if (name.substr(0, 4) != "blk.") return "other";
  const std::size_t dot = name.find('.', 4);
  return dot == std::string_view::npos ? "other" : std::string(name.substr(0, dot));
}

// "attn_q" of "blk.12.attn_q.weight": what tensors of different layers have in common.
std::string roleOf(std::string_view name) {
  const std::string layer = layerOf(name);
  std::string_view rest = layer == "other" ? name : name.substr(layer.size() + 1);
  const std::size_t dot = rest.rfind('.');
  return std::string(dot == std::string_view::npos ? rest : rest.substr(0, dot));
}

// Equal names give equal colours on every page.
unsigned hueOf(std::string_view name) {
  unsigned hash = 2166136261U;
  for (const char c : name)
    hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  return hash % 360;
}

std::string colour(unsigned hue) { return fmt::format("hsl({},55%,62%)", hue); }

// Far apart for sections that lie side by side.
unsigned sectionHue(SectionType type) { return static_cast<unsigned>(type) * 150 % 360; }

// A piece of a bar, `share` of its width.
std::string piece(double share, const std::string& background, const std::string& title,
                  const std::string& label) {
  return fmt::format("<div class=\"piece\" style=\"flex:{:.6f};background:{}\" title=\"{}\">{}</div>",
                     std::max(share, kSmallestShown), background, htmlEscaped(title),
                     share > 0.06 ? htmlEscaped(label) : "");
}

// Zero bytes between sections, and behind the last.
std::string padding(std::uint64_t from, std::uint64_t to, double whole) {
  return piece(static_cast<double>(to - from) / whole, "var(--soft)",
               fmt::format("padding, {} bytes at {}", to - from, from), "");
}

void sectionsMap(const ContainerView& view, std::string& out) {
  out += "<h2>Map of the file</h2>\n<div class=\"bar tall\">";
  const auto whole = static_cast<double>(std::max<std::size_t>(view.file.size(), 1));
  std::uint64_t end = okv2::kFirstSectionOffset;
  out += piece(static_cast<double>(end) / whole, colour(0), "header, 256 bytes", "header");
  for (const SectionType type : okv2::kFileOrder) {
    const SectionView& section = view.section(type);
    if (section.size == 0) continue;
    if (section.offset > end) out += padding(end, section.offset, whole);
    out += piece(static_cast<double>(section.size) / whole, colour(sectionHue(type)),
                 fmt::format("{}, {} bytes at {}", sectionName(type), section.size, section.offset),
                 sectionName(type));
    end = std::max(end, section.offset + section.size);
  }
  if (view.file.size() > end) out += padding(end, view.file.size(), whole);
  out +=
      "</div>\n<table class=\"narrow\"><thead><tr><th>Section</th><th class=\"n\">Offset</th><th "
      "class=\"n\">Bytes</th>"
      "<th class=\"n\">Share</th></tr></thead><tbody>\n";
  for (const SectionType type : okv2::kFileOrder) {
    const SectionView& section = view.section(type);
    out += fmt::format(
        "<tr><td><i style=\"background:hsl({},55%,62%)\"></i>{}</td><td class=\"n\">{}</td>"
        "<td class=\"n\">{}</td><td class=\"n\">{:.2f}%</td></tr>\n",
        sectionHue(type), sectionName(type), section.offset, section.size,
        100.0 * static_cast<double>(section.size) / whole);
  }
  out += "</tbody></table>\n";
}

// Rows of the tensor map: layers in the order of their numbers, then what belongs to none.
struct Layer {
  std::uint64_t bytes = 0;
  std::vector<const TensorView*> tensors;
};
std::vector<std::pair<std::string, Layer>> layersOf(const ContainerView& view) {
  std::map<std::pair<std::size_t, std::string>, Layer> sorted;  // a shorter number is a smaller one
  for (const TensorView& tensor : view.tensors) {
    const std::string name = layerOf(tensor.name);
    Layer& layer = sorted[{name == "other" ? ~std::size_t{0} : name.size(), name}];
    layer.bytes += tensor.size;
    layer.tensors.push_back(&tensor);
  }
  std::vector<std::pair<std::string, Layer>> out;
  out.reserve(sorted.size());
  for (auto& [key, layer] : sorted)
    out.emplace_back(key.second, std::move(layer));
  return out;
}

void tensorMap(const ContainerView& view, std::string& out) {
  const auto layers = layersOf(view);
  std::uint64_t largest = 1;
  for (const auto& [name, layer] : layers)
    largest = std::max(largest, layer.bytes);
  out +=
      "<h2>Tensors by layer</h2>\n<p>Each row is as long as its bytes; a colour stands for one kind of "
      "tensor.</p>\n<div class=\"layers\">\n";
  for (const auto& [name, layer] : layers) {
    out += fmt::format(
        "<div class=\"label\">{}</div><div class=\"row\"><div class=\"bar\" style=\"width:{:.4f}%\">",
        show(name), 100.0 * static_cast<double>(layer.bytes) / static_cast<double>(largest));
    for (const TensorView* tensor : layer.tensors) {
      const double share =
          static_cast<double>(tensor->size) / static_cast<double>(std::max<std::uint64_t>(layer.bytes, 1));
      const std::string role = roleOf(tensor->name);
      out += piece(share, colour(hueOf(role)),
                   fmt::format("{} {} {}, {} bytes", escaped(tensor->name), dtypeName(tensor->dtype),
                               shapeText(*tensor), tensor->size),
                   escaped(role));
    }
    out += fmt::format("</div></div><div class=\"size\">{}</div>\n", bytesText(layer.bytes));
  }
  out += "</div>\n";
}

void typesTable(const ContainerView& view, std::string& out) {
  std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> types;
  for (const TensorView& tensor : view.tensors) {
    auto& [count, bytes] = types[dtypeName(tensor.dtype)];
    ++count;
    bytes += tensor.size;
  }
  out +=
      "<h2>Types</h2>\n<table class=\"narrow\"><thead><tr><th>Type</th><th class=\"n\">Tensors</th>"
      "<th class=\"n\">Bytes</th></tr></thead><tbody>\n";
  for (const auto& [type, use] : types) {
    out += fmt::format("<tr><td>{}</td><td class=\"n\">{}</td><td class=\"n\">{}</td></tr>\n",
                       htmlEscaped(type), use.first, use.second);
  }
  out += "</tbody></table>\n";
}

void tensorTable(const ContainerView& view, std::string& out) {
  out +=
      "<h2>Tensors</h2>\n<p>A click on a heading sorts. <input id=\"filter\" placeholder=\"part of a name\" "
      "aria-label=\"part of a name\"></p>\n<table id=\"tensors\"><thead><tr><th>Name</th><th>Type</th>"
      "<th>Shape</th><th class=\"n\">Bytes</th><th class=\"n\">Offset</th></tr></thead><tbody>\n";
  const std::uint64_t weights = view.section(SectionType::Weights).offset;
  for (const TensorView& tensor : view.tensors) {
    out += fmt::format(
        "<tr><td class=\"mono\">{}</td><td>{}</td><td class=\"mono\">{}</td><td class=\"n\">{}</td>"
        "<td class=\"n\">{}</td></tr>\n",
        show(tensor.name), htmlEscaped(dtypeName(tensor.dtype)), shapeText(tensor), tensor.size,
        weights + tensor.dataOffset);
  }
  out += "</tbody></table>\n";
}

void metadataTable(const ContainerView& view, std::string& out) {
  out += "<h2>Metadata</h2>\n<table><thead><tr><th>Key</th><th>Type</th><th>Value</th></tr></thead><tbody>\n";
  for (const MetaView& item : view.metadata) {
    const auto [type, value] = describe(item);
    std::string cell = htmlEscaped(value);
    if (item.type == okv2::MetaType::Str && item.value.size() > 60) {
      cell =
          fmt::format("<details><summary>{}</summary><pre>{}</pre></details>", cell, htmlEscaped(item.value));
    }
    out += fmt::format("<tr><td class=\"mono\">{}</td><td>{}</td><td class=\"mono\">{}</td></tr>\n",
                       show(item.key), type, cell);
  }
  out += "</tbody></table>\n";
}

void tokenizerPart(const ContainerView& view, std::string& out) {
  const TokenizerView& tokenizer = view.tokenizer;
  out += fmt::format(
      "<h2>Tokenizer</h2>\n<p>{} tokens, {} scores, {} types, {} merges. Special ids: bos {}, eos {}, "
      "unk {}, pad {}. Add bos: {}.</p>\n",
      tokenizer.tokens.size(), tokenizer.scoreCount(), tokenizer.typeCount(), tokenizer.merges.size(),
      tokenizer.specialIds[0], tokenizer.specialIds[1], tokenizer.specialIds[2], tokenizer.specialIds[3],
      tokenizer.addBos != 0 ? "yes" : "no");
  const std::size_t shown = std::min(kTokenSample, tokenizer.tokens.size());
  if (shown == 0) return;
  out += fmt::format("<p>{} of its tokens, spread evenly:</p>\n<div class=\"tokens\">", shown);
  for (std::size_t k = 0; k < shown; ++k) {
    const std::size_t id = k * tokenizer.tokens.size() / shown;
    out +=
        fmt::format("<span title=\"id {}\">{}</span>", id, htmlEscaped(escapedCut(tokenizer.tokens[id], 40)));
  }
  out += "</div>\n";
}

void findingsPart(const ContainerView& view, std::string& out) {
  const auto& items = view.findings.items();
  out += "<h2>Findings</h2>\n";
  if (items.empty()) {
    out += "<p class=\"good\">None: the container keeps its format.</p>\n";
    return;
  }
  out += "<ul class=\"findings\">\n";
  for (const Finding& finding : items) {
    out += fmt::format("<li class=\"{}\"><b>{}</b> at byte {}: {}</li>\n", finding.isError ? "error" : "note",
                       finding.isError ? "error" : "note", finding.offset, htmlEscaped(finding.text));
  }
  out += "</ul>\n";
  if (view.findings.dropped() > 0)
    out += fmt::format("<p>{} further findings.</p>\n", view.findings.dropped());
}

// Values that are easy to see on the page, for programs that read it.
std::string dataJson(const ContainerView& view) {
  Json out = containerJson(view, {true, true, false, true});
  out["findings"] = findingsJson(view.findings);
  return scriptSafe(out.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace

std::string htmlEscaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      case '\0': out += "\xEF\xBF\xBD"; break;
      default: out += c;
    }
  }
  return out;
}

std::string scriptSafe(std::string_view json) {
  std::string out;
  out.reserve(json.size());
  for (const char c : json) {
    if (c == '<' || c == '>' || c == '&') {
      out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
    } else {
      out += c;
    }
  }
  return out;
}

std::string htmlPage(const ContainerView& view, const std::string& title) {
  const std::string shownTitle = show(title);
  std::string out = fmt::format(kHtmlHead, shownTitle);
  out += fmt::format(
      "<header><h1>{}</h1><p>{} bytes ({}), {} tensors, {} layers, hidden size {}, vocabulary size {}"
      "</p></header>\n<main>\n",
      shownTitle, view.file.size(), bytesText(view.file.size()), view.tensors.size(), view.numLayers,
      view.hiddenSize, view.vocabSize);
  findingsPart(view, out);
  sectionsMap(view, out);
  tensorMap(view, out);
  typesTable(view, out);
  metadataTable(view, out);
  tokenizerPart(view, out);
  out += "<h2>Chat template</h2>\n";
  out += view.chatTemplate.empty() ? std::string("<p>None.</p>\n")
                                   : fmt::format("<pre>{}</pre>\n", htmlEscaped(view.chatTemplate));
  tensorTable(view, out);
  out += "</main>\n<script type=\"application/json\" id=\"okv2-data\">" + dataJson(view) + "</script>\n";
  return out + kHtmlTail;
}

}  // namespace zel::tool
