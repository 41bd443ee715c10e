#include "core/text.h"

#include <gtest/gtest.h>

namespace zul {
namespace {

TEST(Text, ConvertsWellFormedUtf8Only) {
  for (const char* text :
       {"", "a\x7F\xC2\x80\xDF\xBF", "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF",
        "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"}) {
    EXPECT_EQ(WideToUtf8(Utf8ToWide(text).value()), text);
  }
  // Single bytes, overlong forms, truncated sequences, a surrogate, and a value above U+10FFFF.
  for (const char* text : {"\x80", "\xFF", "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xC3",
                           "\xE2\x82\x28", "\xF0\x90\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
    EXPECT_FALSE(IsValidUtf8(text) || Utf8ToWide(text) || PathFromUtf8(text)) << PathToUtf8(text);
  }
  const wchar_t unpaired[] = {L'a', static_cast<wchar_t>(0xDC00), L'b', 0};
  EXPECT_FALSE(WideToUtf8(unpaired));
  EXPECT_EQ(WideToUtf8Lossy(unpaired), "a\uFFFDb");
}

}  // namespace
}  // namespace zul
