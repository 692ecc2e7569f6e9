// The tokenizer of the library's XPath engine, for the XPath 2.0 grammar. XPath reserves no
// names: whether `div` or `cast` is an operator or an element name depends on whether an
// operator may stand where it is, and the tokenizer decides that from the previous token.
#ifndef VESKAN_XML_XPATH_XPATHLEXER_H
#define VESKAN_XML_XPATH_XPATHLEXER_H

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {

// A malformed expression: what is wrong and the offset, in UTF-16 units from the start of the
// expression text, at which it was found. The lexer and the parser throw nothing else (besides
// std::bad_alloc).
class XPathSyntaxError : public std::runtime_error {
 public:
  XPathSyntaxError(const std::string& message, std::size_t offset);
  std::size_t Offset() const { return offset_; }

 private:
  std::size_t offset_;
};

enum class TokenKind {
  // Punctuation.
  LeftParen,
  RightParen,
  LeftBracket,
  RightBracket,
  Comma,
  At,
  ColonColon,
  Dot,
  DotDot,
  Slash,
  SlashSlash,
  // Operators; Multiply is `*` where an operator is expected.
  Pipe,
  Plus,
  Minus,
  Multiply,
  Equals,
  NotEquals,
  Less,
  LessEqual,
  Greater,
  GreaterEqual,
  Precedes,      // <<
  Follows,       // >>
  QuestionMark,  // `?`: zero or one, after a type
  And,
  Or,
  Div,
  Idiv,
  Mod,
  Eq,
  Ne,
  Lt,
  Le,
  Gt,
  Ge,
  Is,
  To,
  Union,
  Intersect,
  Except,
  InstanceOf,  // `instance of`, one token: either word alone is a name
  TreatAs,
  CastableAs,
  CastAs,
  // Keywords.
  For,
  Some,
  Every,
  If,
  Then,
  Else,
  Return,
  In,
  Satisfies,
  // Operands.
  Number,        // text: the lexeme; number: its value.
  Literal,       // text: the value, doubled quotes undone.
  Variable,      // prefix, text: the name after `$`.
  NameTest,      // prefix, text: a name, `*` (text "*"), `p:*` (text "*") or `*:n` (prefix "*").
  FunctionName,  // prefix, text: a name followed by `(`.
  KindTest,      // text: an unprefixed kind test or sequence type name (node, element, item, ...)
                 // followed by `(`.
  AxisName,      // text: a name followed by `::`.
  End
};

// The form of a numeric literal, which XPath 2.0 types differently: 1, 1.5, 1e3.
enum class NumberForm { Integer, Decimal, Double };

// One token and where it starts; which members are set depends on the kind (see TokenKind).
struct Token {
  TokenKind kind = TokenKind::End;
  std::size_t offset = 0;
  std::u16string prefix;
  std::u16string text;
  double number = 0;
  NumberForm numberForm = NumberForm::Integer;
};

// The expression as tokens, ending with one End token.
// A `*` or `+` that closes the sequence type after `instance of` or `treat as` is an occurrence
// indicator, so an operator follows it: `$x instance of item()* and $y` has the operator `and`.
// Throws XPathSyntaxError on a character that starts no token, an unterminated literal or
// comment, a `$` without a name, a malformed number or one run into a name (`1.5e`, `10div`),
// or a name that is no operator where an operator must come.
std::vector<Token> Tokenize(std::u16string_view text);

// The source form of a token kind, for error messages ("'('", "'div'", "name", ...).
std::string Describe(TokenKind kind);

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

#endif
