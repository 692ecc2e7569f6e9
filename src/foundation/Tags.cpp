// Tags: tag lists to and from their text forms.
#include <veskan/CsvFile.h>

#include <string>

namespace Veskan {

namespace {

// The length of a line-break element ("<br />", "<br/>", "<br>", any letter case) at `text`,
// or 0.
int LineBreakElementLength(const char16_t* text) {
  if (text[0] != u'<' || (text[1] | 0x20) != u'b' || (text[2] | 0x20) != u'r') return 0;
  int length = 3;
  while (text[length] == u' ' || text[length] == u'\t')
    ++length;
  if (text[length] == u'/') ++length;
  return text[length] == u'>' ? length + 1 : 0;
}

// Appends the normalised, non-empty tokens of `text` between `delimiters` to `list`.
int AddEntries(const char16_t* text, const char16_t* delimiters, StringList& list) {
  StringList tokens;
  Tokenize(text, tokens, delimiters);
  int added = 0;
  for (const StringBuffer& token : tokens) {
    StringBuffer entry = Tags::NormalizeWhitespace(token);
    if (entry.isEmpty()) continue;
    list.Add(std::move(entry));
    ++added;
  }
  return added;
}

StringBuffer Join(const StringList& list, const char16_t* separator) {
  StringBuffer text;
  for (int i = 0; i < list.Count(); ++i) {
    if (i > 0) text += separator;
    text += list[i];
  }
  return text;
}

}  // namespace

int Tags::SplitWithinTag(const char16_t* text, StringList& list) {
  return AddEntries(text, u",;", list);
}

StringBuffer Tags::JoinWithinTag(const StringList& list) {
  return Join(list, u", ");
}

int Tags::SplitBetweenTags(const char16_t* text, StringList& list) {
  // Each line-break element becomes a line feed, so one split covers elements and line ends.
  std::u16string lines;
  for (const char16_t* next = SafeStringLiteral(text); *next;) {
    const int element = LineBreakElementLength(next);
    lines += element > 0 ? u'\n' : *next;
    next += element > 0 ? element : 1;
  }
  return AddEntries(lines.c_str(), u"\r\n", list);
}

StringBuffer Tags::JoinBetweenTags(const StringList& list) {
  return Join(list, u"<br />");
}

StringBuffer Tags::NormalizeWhitespace(const char16_t* text) {
  return Veskan::NormalizeWhitespace(text);
}

}  // namespace Veskan
