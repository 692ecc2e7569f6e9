#include "xml/xpath/XPathLexer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>

namespace Veskan {
namespace Detail {
namespace XPath {

XPathSyntaxError::XPathSyntaxError(const std::string& message, std::size_t offset)
    : std::runtime_error(message + " at offset " + std::to_string(offset)), offset_(offset) {}

namespace {

bool IsSpace(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n';
}
bool IsDigit(char16_t c) {
  return c >= u'0' && c <= u'9';
}

// XML 1.0 NameStartChar without ':'; a surrogate pair covers the planes above the BMP.
bool IsNameStart(char16_t c) {
  return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || c == u'_' ||
         (c >= 0xC0 && c <= 0xD6) || (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) ||
         (c >= 0x370 && c <= 0x37D) || (c >= 0x37F && c <= 0x1FFF) || c == 0x200C || c == 0x200D ||
         (c >= 0x2070 && c <= 0x218F) || (c >= 0x2C00 && c <= 0x2FEF) ||
         (c >= 0x3001 && c <= 0xD7FF) || (c >= 0xF900 && c <= 0xFDCF) ||
         (c >= 0xFDF0 && c <= 0xFFFD);
}

bool IsNameChar(char16_t c) {
  return IsNameStart(c) || IsDigit(c) || c == u'-' || c == u'.' || c == 0xB7 ||
         (c >= 0x300 && c <= 0x36F) || c == 0x203F || c == 0x2040;
}

bool IsHighSurrogate(char16_t c) {
  return c >= 0xD800 && c <= 0xDB7F;
}  // up to U+EFFFF
bool IsLowSurrogate(char16_t c) {
  return c >= 0xDC00 && c <= 0xDFFF;
}

// Operator names recognised where an operator is expected.
struct NamedKind {
  std::u16string_view name;
  TokenKind kind;
};
constexpr NamedKind OperatorNames[] = {{u"and", TokenKind::And},
                                       {u"or", TokenKind::Or},
                                       {u"div", TokenKind::Div},
                                       {u"idiv", TokenKind::Idiv},
                                       {u"mod", TokenKind::Mod},
                                       {u"eq", TokenKind::Eq},
                                       {u"ne", TokenKind::Ne},
                                       {u"lt", TokenKind::Lt},
                                       {u"le", TokenKind::Le},
                                       {u"gt", TokenKind::Gt},
                                       {u"ge", TokenKind::Ge},
                                       {u"is", TokenKind::Is},
                                       {u"to", TokenKind::To},
                                       {u"union", TokenKind::Union},
                                       {u"intersect", TokenKind::Intersect},
                                       {u"except", TokenKind::Except},
                                       {u"then", TokenKind::Then},
                                       {u"else", TokenKind::Else},
                                       {u"return", TokenKind::Return},
                                       {u"in", TokenKind::In},
                                       {u"satisfies", TokenKind::Satisfies}};

// Operators of two words; the first word alone is no operator.
struct TwoWordOperator {
  std::u16string_view first;
  std::u16string_view second;
  TokenKind kind;
};
constexpr TwoWordOperator TwoWordOperators[] = {{u"instance", u"of", TokenKind::InstanceOf},
                                                {u"treat", u"as", TokenKind::TreatAs},
                                                {u"castable", u"as", TokenKind::CastableAs},
                                                {u"cast", u"as", TokenKind::CastAs}};

// Unprefixed names that, followed by `(`, open a kind test or a sequence type, never a call.
constexpr std::u16string_view KindTestNames[] = {
    u"node",          u"text",          u"comment",        u"processing-instruction", u"element",
    u"attribute",     u"document-node", u"schema-element", u"schema-attribute",       u"item",
    u"empty-sequence"};

class Lexer {
 public:
  explicit Lexer(std::u16string_view text) : text_(text) {}

  std::vector<Token> Run() {
    std::vector<Token> tokens;
    for (;;) {
      SkipSpaceAndComments();
      Token token;
      token.offset = pos_;
      if (pos_ >= text_.size()) {
        tokens.push_back(std::move(token));
        return tokens;
      }
      Next(token);
      operandExpected_ = OperandFollows(token.kind);
      TrackSequenceType(token.kind);
      tokens.push_back(std::move(token));
    }
  }

 private:
  // A `*` or `+` right after the sequence type of `instance of` or `treat as` is an occurrence
  // indicator, which an operator follows, where the operators `*` and `+` take an operand. The
  // state follows the type: Start before it, KindTest within a kind test's parentheses, End
  // right after it (a name or the closing parenthesis).
  enum class TypeState { None, Start, KindTest, End };

  void TrackSequenceType(TokenKind kind) {
    switch (typeState_) {
      case TypeState::None:
        break;
      case TypeState::Start:
        typeState_ = kind == TokenKind::NameTest   ? TypeState::End
                     : kind == TokenKind::KindTest ? TypeState::KindTest
                                                   : TypeState::None;
        typeDepth_ = 0;
        return;
      case TypeState::KindTest:
        if (kind == TokenKind::LeftParen) {
          ++typeDepth_;
        } else if (kind == TokenKind::RightParen && --typeDepth_ == 0) {
          typeState_ = TypeState::End;
        } else if (kind == TokenKind::End) {
          typeState_ = TypeState::None;
        }
        return;
      case TypeState::End:
        typeState_ = TypeState::None;
        if (kind == TokenKind::Multiply || kind == TokenKind::Plus) operandExpected_ = false;
        break;
    }
    if (kind == TokenKind::InstanceOf || kind == TokenKind::TreatAs) typeState_ = TypeState::Start;
  }

  char16_t At(std::size_t i) const { return i < text_.size() ? text_[i] : char16_t(0); }

  // Whitespace and nested (: comments :); an unterminated comment is an error.
  void SkipSpaceAndComments() {
    for (;;) {
      while (pos_ < text_.size() && IsSpace(text_[pos_]))
        ++pos_;
      if (At(pos_) != u'(' || At(pos_ + 1) != u':') return;
      const std::size_t start = pos_;
      std::size_t depth = 0;
      do {
        if (pos_ >= text_.size()) throw XPathSyntaxError("unterminated comment", start);
        if (At(pos_) == u'(' && At(pos_ + 1) == u':') {
          ++depth;
          pos_ += 2;
        } else if (At(pos_) == u':' && At(pos_ + 1) == u')') {
          --depth;
          pos_ += 2;
        } else {
          ++pos_;
        }
      } while (depth > 0);
    }
  }

  // The position after whitespace and comments from `from`, without consuming or failing.
  std::size_t PeekPast(std::size_t from) const {
    for (;;) {
      while (from < text_.size() && IsSpace(text_[from]))
        ++from;
      if (At(from) != u'(' || At(from + 1) != u':') return from;
      std::size_t depth = 0;
      do {
        if (from >= text_.size()) return from;
        if (At(from) == u'(' && At(from + 1) == u':') {
          ++depth;
          from += 2;
        } else if (At(from) == u':' && At(from + 1) == u')') {
          --depth;
          from += 2;
        } else {
          ++from;
        }
      } while (depth > 0);
    }
  }

  bool NameStartsAt(std::size_t i) const {
    return IsNameStart(At(i)) || (IsHighSurrogate(At(i)) && IsLowSurrogate(At(i + 1)));
  }
  bool NameCharAt(std::size_t i) const {
    return IsNameChar(At(i)) || (IsHighSurrogate(At(i)) && IsLowSurrogate(At(i + 1)));
  }

  // Whether `word`, as a whole name, comes next after whitespace and comments; if so, consumes
  // it.
  bool AcceptWord(std::u16string_view word) {
    const std::size_t start = PeekPast(pos_);
    if (text_.substr(start, word.size()) != word || NameCharAt(start + word.size())) return false;
    pos_ = start + word.size();
    return true;
  }

  // An NCName starting at pos_, which NameStartsAt has checked.
  std::u16string ReadNCName() {
    const std::size_t start = pos_;
    while (pos_ < text_.size()) {
      if (IsHighSurrogate(At(pos_)) && IsLowSurrogate(At(pos_ + 1))) {
        pos_ += 2;
      } else if (IsNameChar(At(pos_))) {
        ++pos_;
      } else {
        break;
      }
    }
    return std::u16string(text_.substr(start, pos_ - start));
  }

  // Whether an operand (not an operator) must come after a token of this kind.
  static bool OperandFollows(TokenKind kind) {
    switch (kind) {
      case TokenKind::RightParen:
      case TokenKind::RightBracket:
      case TokenKind::Dot:
      case TokenKind::DotDot:
      case TokenKind::Number:
      case TokenKind::Literal:
      case TokenKind::Variable:
      case TokenKind::NameTest:
      case TokenKind::QuestionMark:
        return false;
      case TokenKind::LeftParen:
      case TokenKind::LeftBracket:
      case TokenKind::Comma:
      case TokenKind::At:
      case TokenKind::ColonColon:
      case TokenKind::Slash:
      case TokenKind::SlashSlash:
      case TokenKind::Pipe:
      case TokenKind::Plus:
      case TokenKind::Minus:
      case TokenKind::Multiply:
      case TokenKind::Equals:
      case TokenKind::NotEquals:
      case TokenKind::Less:
      case TokenKind::LessEqual:
      case TokenKind::Greater:
      case TokenKind::GreaterEqual:
      case TokenKind::Precedes:
      case TokenKind::Follows:
      case TokenKind::And:
      case TokenKind::Or:
      case TokenKind::Div:
      case TokenKind::Idiv:
      case TokenKind::Mod:
      case TokenKind::Eq:
      case TokenKind::Ne:
      case TokenKind::Lt:
      case TokenKind::Le:
      case TokenKind::Gt:
      case TokenKind::Ge:
      case TokenKind::Is:
      case TokenKind::To:
      case TokenKind::Union:
      case TokenKind::Intersect:
      case TokenKind::Except:
      case TokenKind::InstanceOf:
      case TokenKind::TreatAs:
      case TokenKind::CastableAs:
      case TokenKind::CastAs:
      case TokenKind::For:
      case TokenKind::Some:
      case TokenKind::Every:
      case TokenKind::If:
      case TokenKind::Then:
      case TokenKind::Else:
      case TokenKind::Return:
      case TokenKind::In:
      case TokenKind::Satisfies:
      case TokenKind::FunctionName:
      case TokenKind::KindTest:
      case TokenKind::AxisName:
      case TokenKind::End:
        return true;
    }
    return true;
  }

  void Next(Token& token) {
    const char16_t c = text_[pos_];
    const char16_t d = At(pos_ + 1);
    if (IsDigit(c) || (c == u'.' && IsDigit(d))) return ReadNumber(token);
    if (c == u'"' || c == u'\'') return ReadLiteral(token);
    if (c == u'$') return ReadVariable(token);
    if (NameStartsAt(pos_)) return ReadName(token);
    if (c == u'*') {
      ++pos_;
      if (!operandExpected_) {
        token.kind = TokenKind::Multiply;
      } else {
        token.kind = TokenKind::NameTest;
        token.text.assign(1, u'*');
        if (At(pos_) == u':' && NameStartsAt(pos_ + 1)) {
          ++pos_;
          token.prefix.assign(1, u'*');
          token.text = ReadNCName();
        }
      }
      return;
    }
    struct Punctuation {
      std::u16string_view text;
      TokenKind kind;
    };
    // Longer forms first.
    static constexpr Punctuation punctuation[] = {
        {u"..", TokenKind::DotDot},     {u"//", TokenKind::SlashSlash},
        {u"::", TokenKind::ColonColon}, {u"!=", TokenKind::NotEquals},
        {u"<=", TokenKind::LessEqual},  {u">=", TokenKind::GreaterEqual},
        {u"<<", TokenKind::Precedes},   {u">>", TokenKind::Follows},
        {u"(", TokenKind::LeftParen},   {u")", TokenKind::RightParen},
        {u"[", TokenKind::LeftBracket}, {u"]", TokenKind::RightBracket},
        {u",", TokenKind::Comma},       {u"@", TokenKind::At},
        {u".", TokenKind::Dot},         {u"/", TokenKind::Slash},
        {u"|", TokenKind::Pipe},        {u"+", TokenKind::Plus},
        {u"-", TokenKind::Minus},       {u"=", TokenKind::Equals},
        {u"<", TokenKind::Less},        {u">", TokenKind::Greater},
        {u"?", TokenKind::QuestionMark}};
    for (const Punctuation& p : punctuation) {
      if (text_.substr(pos_, p.text.size()) == p.text) {
        token.kind = p.kind;
        pos_ += p.text.size();
        return;
      }
    }
    throw XPathSyntaxError("unexpected character", pos_);
  }

  void ReadNumber(Token& token) {
    const std::size_t start = pos_;
    token.kind = TokenKind::Number;
    token.numberForm = NumberForm::Integer;
    while (IsDigit(At(pos_)))
      ++pos_;
    if (At(pos_) == u'.' && At(pos_ + 1) != u'.') {
      token.numberForm = NumberForm::Decimal;
      ++pos_;
      while (IsDigit(At(pos_)))
        ++pos_;
    }
    if (At(pos_) == u'e' || At(pos_) == u'E') {
      std::size_t p = pos_ + 1;
      if (At(p) == u'+' || At(p) == u'-') ++p;
      if (!IsDigit(At(p))) throw XPathSyntaxError("exponent without digits", pos_);
      while (IsDigit(At(p)))
        ++p;
      pos_ = p;
      token.numberForm = NumberForm::Double;
    }
    // A name run into a number would read as an operator or a second operand ("10div 3").
    if (NameStartsAt(pos_)) throw XPathSyntaxError("a name directly after a number", pos_);
    token.text = std::u16string(text_.substr(start, pos_ - start));
    token.number = NumberValue(token.text);
  }

  // The value of a numeric lexeme (ASCII digits, '.', 'e', sign), nearest double; magnitudes
  // beyond the double range give infinity or zero rather than an error.
  static double NumberValue(const std::u16string& lexeme) {
    const std::string ascii(lexeme.begin(), lexeme.end());
    double value = 0;
    const auto result = std::from_chars(ascii.data(), ascii.data() + ascii.size(), value);
    if (result.ec != std::errc::result_out_of_range) return value;
    // Decimal magnitude: the place of the first non-zero digit, plus the exponent.
    long magnitude = 0;
    bool seenPoint = false;
    bool seenDigit = false;
    std::size_t i = 0;
    for (; i < ascii.size() && ascii[i] != 'e' && ascii[i] != 'E'; ++i) {
      if (ascii[i] == '.') {
        seenPoint = true;
      } else if (!seenDigit && ascii[i] == '0') {
        if (seenPoint) --magnitude;
      } else {
        seenDigit = true;
        if (!seenPoint) ++magnitude;
      }
    }
    if (i < ascii.size()) {
      long exponent = 0;
      const bool negative = ascii[i + 1] == '-';
      for (std::size_t j = i + 1; j < ascii.size(); ++j) {
        if (IsDigit(ascii[j]) && exponent < 100000) exponent = exponent * 10 + (ascii[j] - '0');
      }
      magnitude += negative ? -exponent : exponent;
    }
    return magnitude > 0 ? std::numeric_limits<double>::infinity() : 0.0;
  }

  void ReadLiteral(Token& token) {
    const std::size_t start = pos_;
    const char16_t quote = text_[pos_++];
    token.kind = TokenKind::Literal;
    for (;;) {
      if (pos_ >= text_.size()) throw XPathSyntaxError("unterminated string literal", start);
      if (text_[pos_] == quote) {
        if (At(pos_ + 1) != quote) break;
        ++pos_;  // A doubled quote stands for one.
      }
      token.text.push_back(text_[pos_++]);
    }
    ++pos_;
  }

  void ReadVariable(Token& token) {
    ++pos_;
    // Whitespace may separate `$` from the name, as in XPath 2.0.
    pos_ = PeekPast(pos_);
    if (!NameStartsAt(pos_)) throw XPathSyntaxError("expected a variable name after '$'", pos_);
    token.kind = TokenKind::Variable;
    token.text = ReadNCName();
    if (At(pos_) == u':' && NameStartsAt(pos_ + 1)) {
      ++pos_;
      token.prefix = std::move(token.text);
      token.text = ReadNCName();
    }
  }

  void ReadName(Token& token) {
    std::u16string name = ReadNCName();
    if (!operandExpected_) {
      for (const NamedKind& op : OperatorNames) {
        if (op.name == name) {
          token.kind = op.kind;
          return;
        }
      }
      for (const TwoWordOperator& op : TwoWordOperators) {
        if (op.first == name && AcceptWord(op.second)) {
          token.kind = op.kind;
          return;
        }
      }
      throw XPathSyntaxError("expected an operator", token.offset);
    }
    if (At(pos_) == u':' && At(pos_ + 1) == u'*') {
      pos_ += 2;
      token.kind = TokenKind::NameTest;
      token.prefix = std::move(name);
      token.text.assign(1, u'*');
      return;
    }
    if (At(pos_) == u':' && NameStartsAt(pos_ + 1)) {
      ++pos_;
      token.prefix = std::move(name);
      name = ReadNCName();
    }
    token.text = std::move(name);
    const std::size_t after = PeekPast(pos_);
    const bool unprefixed = token.prefix.empty();
    if (unprefixed && At(after) == u':' && At(after + 1) == u':') {
      token.kind = TokenKind::AxisName;
    } else if (At(after) == u'(' && At(after + 1) != u':') {
      const bool kindTest = std::find(std::begin(KindTestNames), std::end(KindTestNames),
                                      token.text) != std::end(KindTestNames);
      if (unprefixed && token.text == u"if") {
        token.kind = TokenKind::If;
      } else {
        token.kind = unprefixed && kindTest ? TokenKind::KindTest : TokenKind::FunctionName;
      }
    } else if (unprefixed && At(after) == u'$' &&
               (token.text == u"for" || token.text == u"some" || token.text == u"every")) {
      token.kind = token.text == u"for"    ? TokenKind::For
                   : token.text == u"some" ? TokenKind::Some
                                           : TokenKind::Every;
    } else {
      token.kind = TokenKind::NameTest;
    }
  }

  std::u16string_view text_;
  std::size_t pos_ = 0;
  bool operandExpected_ = true;
  TypeState typeState_ = TypeState::None;
  int typeDepth_ = 0;  // open parentheses of the kind test in TypeState::KindTest
};

}  // namespace

std::vector<Token> Tokenize(std::u16string_view text) {
  return Lexer(text).Run();
}

std::string Describe(TokenKind kind) {
  switch (kind) {
    case TokenKind::LeftParen:
      return "'('";
    case TokenKind::RightParen:
      return "')'";
    case TokenKind::LeftBracket:
      return "'['";
    case TokenKind::RightBracket:
      return "']'";
    case TokenKind::Comma:
      return "','";
    case TokenKind::At:
      return "'@'";
    case TokenKind::ColonColon:
      return "'::'";
    case TokenKind::Dot:
      return "'.'";
    case TokenKind::DotDot:
      return "'..'";
    case TokenKind::Slash:
      return "'/'";
    case TokenKind::SlashSlash:
      return "'//'";
    case TokenKind::Pipe:
      return "'|'";
    case TokenKind::Plus:
      return "'+'";
    case TokenKind::Minus:
      return "'-'";
    case TokenKind::Multiply:
      return "'*'";
    case TokenKind::Equals:
      return "'='";
    case TokenKind::NotEquals:
      return "'!='";
    case TokenKind::Less:
      return "'<'";
    case TokenKind::LessEqual:
      return "'<='";
    case TokenKind::Greater:
      return "'>'";
    case TokenKind::GreaterEqual:
      return "'>='";
    case TokenKind::Precedes:
      return "'<<'";
    case TokenKind::Follows:
      return "'>>'";
    case TokenKind::QuestionMark:
      return "'?'";
    case TokenKind::And:
      return "'and'";
    case TokenKind::Or:
      return "'or'";
    case TokenKind::Div:
      return "'div'";
    case TokenKind::Idiv:
      return "'idiv'";
    case TokenKind::Mod:
      return "'mod'";
    case TokenKind::Eq:
      return "'eq'";
    case TokenKind::Ne:
      return "'ne'";
    case TokenKind::Lt:
      return "'lt'";
    case TokenKind::Le:
      return "'le'";
    case TokenKind::Gt:
      return "'gt'";
    case TokenKind::Ge:
      return "'ge'";
    case TokenKind::Is:
      return "'is'";
    case TokenKind::To:
      return "'to'";
    case TokenKind::Union:
      return "'union'";
    case TokenKind::Intersect:
      return "'intersect'";
    case TokenKind::Except:
      return "'except'";
    case TokenKind::InstanceOf:
      return "'instance of'";
    case TokenKind::TreatAs:
      return "'treat as'";
    case TokenKind::CastableAs:
      return "'castable as'";
    case TokenKind::CastAs:
      return "'cast as'";
    case TokenKind::For:
      return "'for'";
    case TokenKind::Some:
      return "'some'";
    case TokenKind::Every:
      return "'every'";
    case TokenKind::If:
      return "'if'";
    case TokenKind::Then:
      return "'then'";
    case TokenKind::Else:
      return "'else'";
    case TokenKind::Return:
      return "'return'";
    case TokenKind::In:
      return "'in'";
    case TokenKind::Satisfies:
      return "'satisfies'";
    case TokenKind::Number:
      return "number";
    case TokenKind::Literal:
      return "string literal";
    case TokenKind::Variable:
      return "variable";
    case TokenKind::NameTest:
      return "name";
    case TokenKind::FunctionName:
      return "function name";
    case TokenKind::KindTest:
      return "kind test";
    case TokenKind::AxisName:
      return "axis name";
    case TokenKind::End:
      return "end of expression";
  }
  return "a token";
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
