// The steps that recognise a private value by the word before it.

#include <array>
#include <cstddef>
#include <span>

#include "diagnostics/byte_set.h"
#include "diagnostics/redaction_steps.h"

namespace zul {

namespace {

constexpr std::size_t kNone = std::string_view::npos;
constexpr ByteSet kSecretEnd = kWhitespace.With(",;\"'");
constexpr ByteSet kNameEnd("\r\n,;");

/// A part of a text; an empty one means none.
struct Range {
  std::size_t begin = 0;
  std::size_t end = 0;
};

/// Where a word of a vocabulary may begin, decided by its first two letters. One table access rules
/// out nearly every position of a text.
class WordStarts {
 public:
  constexpr explicit WordStarts(std::span<const std::string_view> words) {
    for (const std::string_view word : words) may_begin_[Index(word[0], word[1])] = true;
  }

  [[nodiscard]] constexpr bool Has(std::string_view text, std::size_t pos) const {
    return pos + 1 < text.size() && may_begin_[Index(text[pos], text[pos + 1])];
  }
  /// The first such position from `pos` on, or the text's size.
  [[nodiscard]] constexpr std::size_t Find(std::string_view text, std::size_t pos) const {
    while (pos < text.size() && !Has(text, pos)) ++pos;
    return pos;
  }

 private:
  /// The low five bits number a letter of either case.
  static constexpr std::size_t Index(char first, char second) {
    return static_cast<std::size_t>((first & 31) << 5 | (second & 31));
  }

  std::array<bool, 1024> may_begin_{};
};

/// Words of at least two lower-case letters. A `|` in a word matches one of `separators` or
/// nothing.
struct Vocabulary {
  constexpr Vocabulary(std::span<const std::string_view> all, std::string_view between)
      : words(all), separators(between), starts(all) {}

  std::span<const std::string_view> words;
  ByteSet separators;
  WordStarts starts;
};

/// Where `word` ends when it begins at `pos`, else kNone.
std::size_t AfterWord(std::string_view text, std::size_t pos, std::string_view word,
                      const ByteSet& separators) {
  for (const char expected : word) {
    if (expected == '|') {
      if (pos < text.size() && separators.Has(text[pos])) ++pos;
      continue;
    }
    if (pos == text.size() || !IsEitherCase(text[pos], expected)) return kNone;
    ++pos;
  }
  return pos;
}

/// What `after` gives for the end of the word that begins at `pos`, else kNone. No word of a
/// vocabulary is another word followed by what may come after that word, so the first word for
/// which `after` succeeds is the only one.
template <typename After>
std::size_t AfterAnyWord(std::string_view text, std::size_t pos, const Vocabulary& vocabulary,
                         After after) {
  for (const std::string_view word : vocabulary.words) {
    if (pos == text.size() || !IsEitherCase(text[pos], word.front())) continue;
    const std::size_t end = AfterWord(text, pos, word, vocabulary.separators);
    const std::size_t value = end == kNone ? kNone : after(text, end);
    if (value != kNone) return value;
  }
  return kNone;
}

/// \s*[:=]\s*
std::size_t AfterAssignment(std::string_view text, std::size_t pos) {
  pos = kWhitespace.Skip(text, pos);
  if (pos == text.size() || (text[pos] != ':' && text[pos] != '=')) return kNone;
  return kWhitespace.Skip(text, pos + 1);
}

/// \s+|=
std::size_t AfterBlanksOrEquals(std::string_view text, std::size_t pos) {
  if (pos < text.size() && text[pos] == '=') return pos + 1;
  const std::size_t end = kWhitespace.Skip(text, pos);
  return end == pos ? kNone : end;
}

Range SecretAt(std::string_view text, std::size_t pos) {
  return pos == kNone ? Range{} : Range{pos, kSecretEnd.Find(text, pos)};
}

/// Replaces each value by `marker`. `starts` finds the positions to try; `find` gives the value
/// whose introduction begins there.
template <typename Starts, typename Find>
std::string ReplaceValues(std::string_view text, const Starts& starts, std::string_view marker,
                          Find find) {
  std::string out;
  out.reserve(text.size());
  std::size_t copied = 0;
  for (std::size_t pos = starts.Find(text, 0); pos < text.size(); pos = starts.Find(text, pos)) {
    const Range value = find(text, pos);
    if (value.begin == value.end) {
      ++pos;
      continue;
    }
    out.append(text.substr(copied, value.begin - copied)).append(marker);
    copied = pos = value.end;
  }
  return out.append(text.substr(copied));
}

constexpr std::string_view kAuthorizationWords[] = {"authorization"};
constexpr Vocabulary kAuthorization(kAuthorizationWords, "");
constexpr std::string_view kSchemeWords[] = {"bearer", "basic"};
constexpr Vocabulary kSchemes(kSchemeWords, "");

std::size_t AfterAuthorizationScheme(std::string_view text, std::size_t pos) {
  pos = kWhitespace.Skip(text, pos);
  if (pos == text.size() || text[pos] != ':') return kNone;
  pos = kWhitespace.Skip(text, pos + 1);
  return AfterAnyWord(text, pos, kSchemes, [](std::string_view all, std::size_t at) {
    const std::size_t end = kWhitespace.Skip(all, at);
    return end == at ? kNone : end;
  });
}

constexpr std::string_view kSwitchWords[] = {
    "api|token", "token", "secret", "password", "client|secret", "access|token", "refresh|token"};
constexpr Vocabulary kSwitches(kSwitchWords, "-_");

std::size_t AfterSwitchMark(std::string_view text, std::size_t pos) {
  if (text[pos] == '/') return pos + 1;
  return text.substr(pos).starts_with("--") ? pos + 2 : kNone;
}

constexpr std::string_view kSecretKeyWords[] = {
    "license|key",   "session|token", "api|key", "secret|access|key", "access|key", "access|token",
    "refresh|token", "token",         "secret",  "password"};
constexpr Vocabulary kSecretKeys(kSecretKeyWords, "_-");

constexpr std::string_view kNameKeyWords[] = {"job|name",     "source|label",  "file|name",
                                              "shop|name",    "customer|name", "person|name",
                                              "operator|name"};
constexpr Vocabulary kNameKeys(kNameKeyWords, "_ -");

/// The name after the assignment at `pos`, which is the end of a key. If only blanks follow, the
/// last of them that is no line end is the name, as the expression backtracks.
Range NameAfterKey(std::string_view text, std::size_t pos) {
  const std::size_t sign = kWhitespace.Skip(text, pos);
  const std::size_t begin = AfterAssignment(text, pos);
  if (begin == kNone) return {};
  const std::size_t end = kNameEnd.Find(text, begin);
  if (end != begin) return {begin, end};
  for (std::size_t blank = begin; blank-- > sign + 1;) {
    if (!kNameEnd.Has(text[blank])) return {blank, blank + 1};
  }
  return {};
}

}  // namespace

std::string RedactAuthorization(std::string_view text) {
  return ReplaceValues(
      text, kAuthorization.starts, kRedactedToken, [](std::string_view all, std::size_t pos) {
        return SecretAt(all, AfterAnyWord(all, pos, kAuthorization, AfterAuthorizationScheme));
      });
}

std::string RedactSwitchSecrets(std::string_view text) {
  static constexpr ByteSet kMarks("-/");
  return ReplaceValues(text, kMarks, kRedactedToken, [](std::string_view all, std::size_t pos) {
    const std::size_t word = AfterSwitchMark(all, pos);
    if (word == kNone || !kSwitches.starts.Has(all, word)) return Range{};
    return SecretAt(all, AfterAnyWord(all, word, kSwitches, AfterBlanksOrEquals));
  });
}

std::string RedactKeyedSecrets(std::string_view text) {
  return ReplaceValues(text, kSecretKeys.starts, kRedactedToken,
                       [](std::string_view all, std::size_t pos) {
                         return SecretAt(all, AfterAnyWord(all, pos, kSecretKeys, AfterAssignment));
                       });
}

std::string RedactKeyedNames(std::string_view text) {
  return ReplaceValues(text, kNameKeys.starts, kRedactedName,
                       [](std::string_view all, std::size_t pos) {
                         const auto itself = [](std::string_view, std::size_t end) { return end; };
                         const std::size_t end = AfterAnyWord(all, pos, kNameKeys, itself);
                         return end == kNone ? Range{} : NameAfterKey(all, end);
                       });
}

}  // namespace zul
