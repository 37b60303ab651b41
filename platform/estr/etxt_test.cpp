#include "etxt.h"

#include <gtest/gtest.h>

#include "platform/estr/utf8.h"

TEST(WideText, Utf8RoundTripIncludingAstralAndInvalidBytes) {
  const std::wstring w = L"Gauß–Krüger \U0001F4F7 x";
  EXPECT_EQ(kzdv::FromUtf8(kzdv::ToUtf8(w)), w);
  EXPECT_EQ(kzdv::ToUtf8(L"\u00e9"), "\xc3\xa9");
  // A lone continuation byte and a truncated sequence decode to U+FFFD, never crash.
  EXPECT_EQ(kzdv::FromUtf8("a\x80"
                           "b"),
            L"a\uFFFDb");
  EXPECT_EQ(kzdv::FromUtf8("a\xe2\x82"), L"a\uFFFD\uFFFD");
}

TEST(WideText, ToolkitFormatTreatsPercentSAsWide) {
  Etxt_Char* s = estr_Sprintf(L"%s:%hs:%5.2f:%d%%", L"wide", "narrow", 3.14159, 7);
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, L"wide:narrow: 3.14:7%");
  emsc_HeapFree(s);
  // Longer than the first buffer guess.
  std::wstring big(5000, L'x');
  EXPECT_EQ(kzdv::Format(L"[%s]", big.c_str()).size(), 5002u);
}

TEST(WideText, ComparisonsExactAndIgnoringCase) {
  EXPECT_EQ(etxt_Text_strcmp(L"degrees", L"degrees"), 0);
  EXPECT_NE(etxt_Text_strcmp(L"Degrees", L"degrees"), 0);
  EXPECT_TRUE(estr_Eqic(L"Degrees", L"DEGREES"));
  EXPECT_FALSE(estr_Eqic(L"degree", L"degrees"));
  EXPECT_FALSE(estr_Eqic(nullptr, L""));
  EXPECT_TRUE(estr_Eqic(nullptr, nullptr));
  EXPECT_LT(estr_Cmpic(L"abc", L"ABD"), 0);
}

TEST(WideText, StringToNumberRejectsTrailingText) {
  double d = -1;
  long l = -1;
  EXPECT_TRUE(estr_StringToDouble(L" 12.5e3 ", &d));
  EXPECT_DOUBLE_EQ(d, 12500.0);
  EXPECT_FALSE(estr_StringToDouble(L"12.5m", &d));
  EXPECT_FALSE(estr_StringToDouble(L"", &d));
  EXPECT_DOUBLE_EQ(d, 12500.0);  // untouched on failure
  EXPECT_TRUE(estr_StringToLong(L"-42", &l));
  EXPECT_EQ(l, -42);
  EXPECT_FALSE(estr_StringToLong(L"4.2", &l));
  EXPECT_FALSE(estr_StringToLong(L"99999999999999999999999", &l));
}

TEST(WideText, FormatIsLocaleIndependentForNarrowUtf8AndHandlesStarsAndLengths) {
  // Non-ASCII UTF-8 through %hs must not depend on the C locale.
  EXPECT_EQ(kzdv::Format(L"[%hs]", "Kr\xc3\xbcger"), L"[Krüger]");
  EXPECT_EQ(kzdv::Format(L"[%-6s|%6.2hs]", L"ab", "xyz"), L"[ab    |    xy]");
  EXPECT_EQ(kzdv::Format(L"%*d|%.*f|%ld|%zu|%x|%c|%hc", 5, 42, 2, 3.14159, -7L,
                         static_cast<size_t>(9), 255u, L'ü', 'q'),
            L"   42|3.14|-7|9|ff|ü|q");
  EXPECT_EQ(kzdv::Format(L"%s %hs", static_cast<const wchar_t*>(nullptr),
                         static_cast<const char*>(nullptr)),
            L"(null) (null)");
}
