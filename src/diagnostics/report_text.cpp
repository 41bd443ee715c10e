#include "diagnostics/report_text.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "core/text.h"
#include "diagnostics/byte_set.h"
#include "diagnostics/redaction.h"
#include "diagnostics/redaction_steps.h"
#include "transfer/url_policy.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::size_t kNone = std::string_view::npos;
constexpr std::size_t kKeyBytesMax = 64;
constexpr ByteSet kKeyBytes = kAsciiLetters.With("0123456789_-");
constexpr ByteSet kBeforeQuote = kWhitespace.With("=:(,[");
constexpr ByteSet kAfterQuote = kWhitespace.With(",.;:)]");

constexpr std::string_view kLogTailMark = "=== recent log tail ===";
constexpr std::string_view kLogTailOmitted =
    "[recent log tail omitted from automatic diagnostics upload]\n";
/// The beginnings of failure texts that continue with unquoted file names from the command line.
/// What follows the names does not matter to support and is left out.
constexpr std::string_view kNameAnnouncements[] = {
    "required file name is unsafe: ", "required file name is duplicated: ",
    "Required files are missing: "};
/// The extensions of the product's own files, without the dot: programs and their settings. Formats
/// that customers use too, such as those of artwork and job tickets, must never be added here.
constexpr std::string_view kProductExtensions[] = {
    "bat",  "cat",      "cfg", "cmd", "com", "conf", "cpl", "dll", "drv", "exe", "inf", "ini",
    "json", "manifest", "msi", "ocx", "pak", "pyd",  "qm",  "qml", "rcc", "scr", "sys"};
constexpr std::size_t kProductNameBytesMax = 260;
/// The bytes of such a file's relative name. A customer's folder may have blanks and other letters.
constexpr ByteSet kProductNameBytes = kAsciiLetters.With("0123456789._+-/\\");

/// What continues a failure text after an unquoted path.
constexpr std::string_view kCodeOfFailure = " (code=";

/// Fields of the trace and of reports whose value is one path.
constexpr std::string_view kPathKeys[] = {"backup_root",
                                          "installed_helper",
                                          "isolated_helper",
                                          "package",
                                          "path",
                                          "payload_root",
                                          "requested_restart_exe",
                                          "restart_exe",
                                          "rollback_backup_root",
                                          "runtime_dir",
                                          "source",
                                          "stage_dir",
                                          "target",
                                          "target_dir",
                                          "trace_log_path"};
/// What precedes the quoted values that are no paths.
constexpr std::string_view kKeptQuotes[] = {"message=", "name=", "owner_query=", "service="};

std::string WithholdText(std::string_view text);

template <typename Range>
bool Contains(const Range& words, std::string_view word) {
  return std::find(std::begin(words), std::end(words), word) != std::end(words);
}

/// True for a relative name that one of the product's own files may have, such as "bin/x.dll".
/// Support needs it: it is the same on every machine.
bool IsProductFileName(std::string_view name) {
  if (name.empty() || name.size() > kProductNameBytesMax ||
      kProductNameBytes.Skip(name, 0) != name.size()) {
    return false;
  }
  const std::size_t dot = name.find_last_of("./\\");
  if (dot == kNone || name[dot] != '.' ||
      !Contains(kProductExtensions, AsciiLower(name.substr(dot + 1)))) {
    return false;
  }
  for (std::size_t begin = 0; begin <= name.size();) {
    const std::size_t end = std::min(name.find_first_of("/\\", begin), name.size());
    if (name.substr(begin, end - begin).find_first_not_of('.') == kNone) return false;
    begin = end + 1;
  }
  return true;
}

/// A relative name with "/" between its parts: in JSON a `\` is escaped, and the redaction takes
/// two of them for the beginning of a UNC path.
std::string WithSlashes(std::string_view name) {
  std::string slashed(name);
  std::replace(slashed.begin(), slashed.end(), '\\', '/');
  return slashed;
}

/// The first single quote from `pos` on that opens a value.
std::size_t OpeningQuote(std::string_view text, std::size_t pos) {
  while ((pos = text.find('\'', pos)) != kNone && pos > 0 && !kBeforeQuote.Has(text[pos - 1])) {
    ++pos;
  }
  return pos;
}

bool StaysQuoted(std::string_view before) {
  return std::any_of(std::begin(kKeptQuotes), std::end(kKeptQuotes),
                     [&](std::string_view key) { return before.ends_with(key); });
}

/// The quote that closes the value that begins at `pos`. A path may contain quotes itself, so a
/// quote closes one only if the text up to the next quote has no `\`. A value that stays ends at
/// the first quote that may close it.
std::size_t ClosingQuote(std::string_view text, std::size_t pos, bool stays) {
  for (std::size_t quote = text.find('\'', pos); quote != kNone;) {
    const std::size_t next = text.find('\'', quote + 1);
    const std::string_view after = text.substr(quote + 1, std::min(next, text.size()) - quote - 1);
    const bool may_close = quote + 1 == text.size() || kAfterQuote.Has(text[quote + 1]);
    if (may_close && (stays || after.find('\\') == kNone)) return quote;
    quote = next;
  }
  return kNone;
}

std::string WithholdSingleQuoted(std::string_view text) {
  std::string out;
  std::size_t copied = 0;
  bool staying_can_close = true;  // if one such value has no closing quote, a later one has none
  for (std::size_t open = OpeningQuote(text, 0); open != kNone;) {
    const bool stays = StaysQuoted(text.substr(copied, open - copied));
    const std::size_t close =
        stays && !staying_can_close ? kNone : ClosingQuote(text, open + 1, stays);
    if (close != kNone && IsProductFileName(text.substr(open + 1, close - open - 1))) {
      out.append(text.substr(copied, open + 1 - copied));
      out.append(WithSlashes(text.substr(open + 1, close - open - 1)));
      copied = close;
      open = OpeningQuote(text, close + 1);
      continue;
    }
    if (stays) {
      staying_can_close = close != kNone;
      open = OpeningQuote(text, staying_can_close ? close + 1 : open + 1);
      continue;
    }
    out.append(text.substr(copied, open + 1 - copied)).append(kRedactedPath);
    copied = std::min(close, text.size());
    open = close == kNone ? kNone : OpeningQuote(text, close + 1);
  }
  return out.append(text.substr(copied));
}

/// The end of a path without quotes is unknown, so the path is taken to reach the end of its line
/// or the code of the failure.
std::string WithholdUnquotedPaths(std::string_view line) {
  std::string out;
  std::size_t copied = 0;
  for (std::size_t path = FindPath(line, 0); path != kNone; path = FindPath(line, copied)) {
    out.append(line.substr(copied, path - copied)).append(kRedactedPath);
    const bool quoted = path > 0 && line[path - 1] == '"';
    copied = std::min(quoted ? line.find('"', path) : line.find(kCodeOfFailure, path), line.size());
  }
  return out.append(line.substr(copied));
}

/// The key of `key="value"` or `"key": "value"`, where `quote` is the position of the value's
/// opening quote; empty when there is no key.
std::string_view KeyBefore(std::string_view text, std::size_t quote) {
  const auto skip_blanks = [&](std::size_t end) {
    while (end > 0 && kWhitespace.Has(text[end - 1])) --end;
    return end;
  };
  std::size_t end = skip_blanks(quote);
  if (end == 0 || (text[end - 1] != ':' && text[end - 1] != '=')) return {};
  end = skip_blanks(end - 1);
  if (end > 0 && text[end - 1] == '"') --end;
  std::size_t begin = end;
  while (begin > 0 && end - begin < kKeyBytesMax && kKeyBytes.Has(text[begin - 1])) --begin;
  return text.substr(begin, end - begin);
}

/// The closing quote of the string whose contents begin at `pos`.
std::size_t StringEnd(std::string_view text, std::size_t pos) {
  while ((pos = text.find_first_of("\"\\", pos)) != kNone && text[pos] == '\\') pos += 2;
  return pos;
}

/// The marker for every value of a key that names a secret or a person; empty for another key.
std::string MarkerOfKey(std::string_view key) {
  const std::string pair = std::string(key) + "=x";
  const std::string redacted = RedactKeyedNames(RedactKeyedSecrets(pair));
  if (redacted == pair) return {};
  const bool same_key =
      std::string_view(redacted).starts_with(std::string_view(pair).substr(0, key.size() + 1));
  return same_key ? redacted.substr(key.size() + 1) : std::string(kRedactedToken);
}

/// A string for a report, with its quotes. `contents` is escaped as in JSON or not at all, and so
/// is the result.
std::string WithholdString(std::string_view key, std::string_view contents) {
  std::string quoted = "\"";
  quoted.append(contents).append("\"");
  if (contents.find('\\') == kNone && ReportField(key, contents) == contents) return quoted;
  const json value = json::parse(quoted, nullptr, false);
  if (!value.is_string()) return "\"" + ReportField(key, contents) + "\"";
  return json(ReportField(key, value.get_ref<const std::string&>()))
      .dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string WithholdPlain(std::string_view text) {
  return WithholdUnquotedPaths(WithholdSingleQuoted(text));
}

/// The end of the names in "a.dll, b/c.dll. Supported ...", which are names of product files; 0
/// when one of them is another name.
std::size_t EndOfProductFiles(std::string_view names) {
  for (std::size_t begin = 0;;) {
    std::size_t end = std::min(names.find_first_of(", ", begin), names.size());
    const bool more = names.substr(end).starts_with(", ");
    const std::size_t next = end + 2;
    if (!more && end > begin && names[end - 1] == '.') --end;
    if (!IsProductFileName(names.substr(begin, end - begin))) return 0;
    if (!more) return end;
    begin = next;
  }
}

std::string WithholdLine(std::string_view line) {
  for (const std::string_view announcement : kNameAnnouncements) {
    const std::size_t found = line.find(announcement);
    if (found == kNone || line.starts_with('{')) continue;  // in JSON the names end with the string
    std::string out = WithholdLine(line.substr(0, found));
    const std::string_view names = line.substr(found + announcement.size());
    const std::size_t end = EndOfProductFiles(names);
    return out.append(announcement).append(end == 0 ? kRedactedFilename : names.substr(0, end));
  }
  std::string out;
  std::size_t copied = 0;
  for (std::size_t quote = line.find('"'); quote != kNone; quote = line.find('"', quote)) {
    const std::string_view key = KeyBefore(line, quote);
    if (key.empty()) {
      ++quote;
      continue;
    }
    const std::size_t end = StringEnd(line, quote + 1);
    out += WithholdPlain(line.substr(copied, quote - copied));
    // A value that was cut off may be private, or end within an escape.
    if (end == kNone) return out.append("\"");
    out += WithholdString(key, line.substr(quote + 1, end - quote - 1));
    copied = quote = end + 1;
  }
  return out += WithholdPlain(line.substr(copied));
}

std::string WithholdText(std::string_view text) {
  std::string out;
  for (;;) {
    const std::size_t end = text.find('\n');
    if (end != 0) out += WithholdLine(text.substr(0, end));
    if (end == kNone) return out;
    out += '\n';
    text.remove_prefix(end + 1);
  }
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const char lower = AsciiLower(c);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// Decodes the escapes of RFC 3986, section 2.1. Anything else stays.
std::string PercentDecode(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const int high = i + 2 < text.size() && text[i] == '%' ? HexDigit(text[i + 1]) : -1;
    const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
    if (low >= 0) i += 2;
    decoded.push_back(low >= 0 ? static_cast<char>(high * 16 + low) : text[i]);
  }
  return decoded;
}

std::string ReportUrl(std::string_view value) {
  std::string url = StripUrlQuery(TrimWhitespace(value));
  if (!NormalizeUrl(url, false).ok) return std::string(kRedactedPath);
  const std::string decoded = PercentDecode(url);
  const bool has_blank = kWhitespace.Find(decoded, 0) != decoded.size();
  if (!has_blank && WithholdText(decoded) == decoded && RedactSupportText(decoded) == decoded) {
    return url;
  }
  const std::size_t origin_end = url.find_first_of('/', url.find("://") + 3);
  return RedactSupportText(url.substr(0, origin_end)) + "/" + std::string(kRedactedPath);
}

}  // namespace

std::string ReportSentence(std::string_view text) {
  return RedactSupportText(WithholdText(text));
}

std::string ReportField(std::string_view key, std::string_view value) {
  if (value.empty()) return {};
  const bool one_word = kKeyBytes.Skip(value, 0) == value.size();
  if (Contains(kPathKeys, key)) {
    // A value without a separator is no path: a source may be a menu.
    if (one_word) return std::string(value);
    return IsProductFileName(value) ? WithSlashes(value) : std::string(kRedactedPath);
  }
  if (key == "url" || key.ends_with("_url")) return ReportUrl(value);
  if (std::string marker = MarkerOfKey(key); !marker.empty()) return marker;
  if (one_word) return std::string(value);
  return SanitizeStateValue(key, WithholdText(value));
}

std::string ReportText(std::string_view file_text, bool log_tail_approved) {
  const std::size_t tail = log_tail_approved ? kNone : file_text.find(kLogTailMark);
  if (tail == kNone) return ReportSentence(file_text);
  std::string_view before = file_text.substr(0, tail);
  before = before.substr(0, before.find_last_not_of("\r\n") + 1);
  std::string text = ReportSentence(before);
  if (!text.empty()) text += '\n';
  return text.append(kLogTailOmitted);
}

}  // namespace zul
