// The steps that recognise private text by its own form.

#include <cstddef>

#include "diagnostics/byte_set.h"
#include "diagnostics/redaction_steps.h"

namespace zul {

namespace {

constexpr std::size_t kNone = std::string_view::npos;
constexpr ByteSet kUrlEnd = kWhitespace.With("\"'<>");
constexpr ByteSet kMailLocal = kAsciiLetters.With("0123456789._%+-");
constexpr ByteSet kMailDomain = kAsciiLetters.With("0123456789.-");
constexpr ByteSet kBeforeNoDrive = kAsciiLetters.With("0123456789_-");
constexpr ByteSet kPathEnd = kWhitespace.With({"\0\"'<>|", 6});
constexpr ByteSet kFileNameStop = kWhitespace.With("\"'(,/;<=>[\\{|");
constexpr ByteSet kAfterFileName = kWhitespace.With("\"'),;]}");

constexpr std::string_view kUnixRoots[] = {"/Users/", "/home/", "/tmp/", "/var/folders/"};

/// The extensions of artwork, print files and our own evidence, without the dot. A new file format
/// of the product must be added here.
constexpr std::string_view kExtensions[] = {"png", "jpg", "jpeg", "tif", "tiff", "pdf",     "zip",
                                            "prt", "prn", "txt",  "log", "dmp",  "zulcolor"};

/// The position of the first URL from `pos` on. Searches for "://", which is rare, and then
/// compares the text before it with the schemes.
std::size_t FindUrl(std::string_view text, std::size_t pos) {
  for (std::size_t mark = text.find("://", pos); mark != kNone; mark = text.find("://", mark + 3)) {
    for (const std::string_view scheme : {std::string_view("https"), std::string_view("http")}) {
      if (mark >= pos + scheme.size() &&
          StartsWithLetters(text.substr(mark - scheme.size()), scheme)) {
        return mark - scheme.size();
      }
    }
  }
  return kNone;
}

/// The end of the domain that begins at `begin`: after its last label that can be a top-level
/// domain.
std::size_t MailDomainEnd(std::string_view text, std::size_t begin) {
  std::size_t letters = 0;
  for (std::size_t i = kMailDomain.Skip(text, begin); i > begin + 1; --i) {
    const char c = text[i - 1];
    if (c == '.' && letters >= 2) return i + letters;
    letters = kAsciiLetters.Has(c) ? letters + 1 : 0;
  }
  return kNone;
}

bool PathStartsAt(std::string_view text, std::size_t pos) {
  const std::string_view rest = text.substr(pos);
  if (rest[0] == '\\') return rest.starts_with("\\\\");
  if (rest[0] == '/') {
    for (const std::string_view root : kUnixRoots) {
      if (rest.starts_with(root)) return true;
    }
    return false;
  }
  return rest.size() >= 3 && rest[1] == ':' && (rest[2] == '\\' || rest[2] == '/') &&
         kAsciiLetters.Has(rest[0]) && (pos == 0 || !kBeforeNoDrive.Has(text[pos - 1]));
}

/// The end of the listed extension after the dot at `dot`, if a file name can end there.
std::size_t AfterExtension(std::string_view text, std::size_t dot) {
  const std::string_view rest = text.substr(dot + 1);
  for (const std::string_view extension : kExtensions) {
    if (StartsWithLetters(rest, extension) &&
        (rest.size() == extension.size() || kAfterFileName.Has(rest[extension.size()]))) {
      return dot + 1 + extension.size();
    }
  }
  return kNone;
}

}  // namespace

std::string StripUrlQueries(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t pos = 0;
  for (std::size_t url = FindUrl(text, 0); url != kNone; url = FindUrl(text, pos)) {
    const std::size_t end = kUrlEnd.Find(text, url);
    const std::string_view whole = text.substr(url, end - url);
    out.append(text.substr(pos, url - pos)).append(whole.substr(0, whole.find_first_of("?#")));
    pos = end;
  }
  return out.append(text.substr(pos));
}

std::string RedactEmails(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t copied = 0;
  for (std::size_t at = text.find('@'); at != kNone;) {
    std::size_t begin = at;
    while (begin > copied && kMailLocal.Has(text[begin - 1])) --begin;
    const std::size_t end = begin == at ? kNone : MailDomainEnd(text, at + 1);
    if (end != kNone) {
      out.append(text.substr(copied, begin - copied)).append(kRedactedEmail);
      copied = end;
    }
    at = text.find('@', end == kNone ? at + 1 : end);
  }
  return out.append(text.substr(copied));
}

std::size_t FindPath(std::string_view text, std::size_t pos) {
  while (pos < text.size() && !PathStartsAt(text, pos)) ++pos;
  return pos < text.size() ? pos : kNone;
}

std::string RedactPaths(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t copied = 0;
  for (std::size_t path = FindPath(text, 0); path != kNone; path = FindPath(text, copied)) {
    out.append(text.substr(copied, path - copied)).append(kRedactedPath);
    copied = kPathEnd.Find(text, path);
  }
  return out.append(text.substr(copied));
}

std::string RedactFileNames(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t name = 0;  // where the current name begins in `out`
  bool in_url = false;   // the current word contains "://"
  for (std::size_t pos = 0; pos < text.size();) {
    const char c = text[pos];
    if (c == '.' && !in_url && out.size() > name) {
      if (const std::size_t end = AfterExtension(text, pos); end != kNone) {
        out.resize(name);
        out.append(kRedactedFilename);
        pos = end;
        continue;
      }
    }
    out.push_back(c);
    if (kFileNameStop.Has(c)) name = out.size();
    if (kUrlEnd.Has(c)) in_url = false;
    if (c == '/' && pos >= 2 && text[pos - 1] == '/' && text[pos - 2] == ':') in_url = true;
    ++pos;
  }
  return out;
}

}  // namespace zul
