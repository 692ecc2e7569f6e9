#include "xml/xpath/XPathParser.h"

#include <algorithm>
#include <initializer_list>
#include <utility>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

struct AxisEntry {
  std::u16string_view name;
  Axis axis;
};
constexpr AxisEntry Axes[] = {
    {u"child", Axis::Child},
    {u"descendant", Axis::Descendant},
    {u"parent", Axis::Parent},
    {u"ancestor", Axis::Ancestor},
    {u"following-sibling", Axis::FollowingSibling},
    {u"preceding-sibling", Axis::PrecedingSibling},
    {u"following", Axis::Following},
    {u"preceding", Axis::Preceding},
    {u"attribute", Axis::Attribute},
    {u"namespace", Axis::Namespace},
    {u"self", Axis::Self},
    {u"descendant-or-self", Axis::DescendantOrSelf},
    {u"ancestor-or-self", Axis::AncestorOrSelf},
};

std::unique_ptr<Node> MakeNode(NodeKind kind, std::size_t offset) {
  auto node = std::make_unique<Node>();
  node->kind = kind;
  node->offset = offset;
  return node;
}

// Sets the node's height from its children and predicates, and refuses trees too tall to walk.
std::unique_ptr<Node> Finish(std::unique_ptr<Node> node) {
  int tallest = 0;
  for (const auto& child : node->children)
    tallest = std::max(tallest, child->height);
  for (const auto& pred : node->predicates)
    tallest = std::max(tallest, pred->height);
  node->height = tallest + 1;
  if (node->height > MaxTreeHeight) {
    throw XPathSyntaxError("expression too deeply nested", node->offset);
  }
  return node;
}

std::unique_ptr<Node> MakeBinary(Operator op, std::unique_ptr<Node> left,
                                 std::unique_ptr<Node> right) {
  auto node = MakeNode(NodeKind::Binary, left->offset);
  node->op = op;
  node->children.push_back(std::move(left));
  node->children.push_back(std::move(right));
  return Finish(std::move(node));
}

// Recursive descent over the token list; each Parse* function consumes one grammar production
// and names it after the production. Precedence, loosest first: `,`; for/some/every/if; or;
// and; comparisons; to; + -; * div idiv mod; union |; intersect except; instance of; treat as;
// castable as; cast as; unary - +; / //. Comparisons, `to` and the four type operators take at
// most one operator each: `1 = 1 = 1` is an error, since chaining from the left would compare
// a boolean with a number.
class Parser {
 public:
  Parser(std::vector<Token> tokens, int maxDepth)
      : tokens_(std::move(tokens)), maxDepth_(maxDepth) {}

  std::unique_ptr<Node> Run() {
    if (Peek().kind == TokenKind::End) throw XPathSyntaxError("empty expression", Peek().offset);
    auto node = ParseExpr();
    if (Peek().kind != TokenKind::End) Unexpected();
    return node;
  }

 private:
  // Counts one level of nesting for as long as it lives.
  class DepthGuard {
   public:
    explicit DepthGuard(Parser& parser) : parser_(parser) {
      if (++parser_.depth_ > parser_.maxDepth_) {
        throw XPathSyntaxError(
            "expression nested more than " + std::to_string(parser_.maxDepth_) + " levels deep",
            parser_.Peek().offset);
      }
    }
    ~DepthGuard() { --parser_.depth_; }
    DepthGuard(const DepthGuard&) = delete;
    DepthGuard& operator=(const DepthGuard&) = delete;

   private:
    Parser& parser_;
  };

  // The next token; past the end, the End token again.
  const Token& Peek() const { return tokens_[next_]; }
  const Token& Take() {
    const Token& token = tokens_[next_];
    if (next_ + 1 < tokens_.size()) ++next_;
    return token;
  }
  bool Accept(TokenKind kind) {
    if (Peek().kind != kind) return false;
    Take();
    return true;
  }
  const Token& Expect(TokenKind kind) {
    if (Peek().kind != kind) {
      throw XPathSyntaxError("expected " + Describe(kind) + ", found " + Describe(Peek().kind),
                             Peek().offset);
    }
    return Take();
  }
  [[noreturn]] void Unexpected() const {
    throw XPathSyntaxError("unexpected " + Describe(Peek().kind), Peek().offset);
  }

  // Expr := ExprSingle (',' ExprSingle)*
  std::unique_ptr<Node> ParseExpr() {
    auto first = ParseExprSingle();
    if (Peek().kind != TokenKind::Comma) return first;
    auto sequence = MakeNode(NodeKind::Sequence, first->offset);
    sequence->children.push_back(std::move(first));
    while (Accept(TokenKind::Comma))
      sequence->children.push_back(ParseExprSingle());
    return Finish(std::move(sequence));
  }

  std::unique_ptr<Node> ParseExprSingle() {
    DepthGuard guard(*this);
    const TokenKind kind = Peek().kind;
    if (kind == TokenKind::For) return ParseBinding(NodeKind::For, TokenKind::Return);
    if (kind == TokenKind::Some) return ParseBinding(NodeKind::Some, TokenKind::Satisfies);
    if (kind == TokenKind::Every) return ParseBinding(NodeKind::Every, TokenKind::Satisfies);
    if (kind == TokenKind::If) return ParseIf();
    return ParseOr();
  }

  // for/some/every $a in A (, $b in B)* return/satisfies C, as one node per clause.
  std::unique_ptr<Node> ParseBinding(NodeKind kind, TokenKind bodyKeyword) {
    const std::size_t offset = Take().offset;
    std::vector<std::unique_ptr<Node>> clauses;
    do {
      const Token& variable = Expect(TokenKind::Variable);
      auto clause = MakeNode(kind, clauses.empty() ? offset : variable.offset);
      clause->name = QName{variable.prefix, variable.text};
      Expect(TokenKind::In);
      clause->children.push_back(ParseExprSingle());
      clauses.push_back(std::move(clause));
    } while (Accept(TokenKind::Comma));
    Expect(bodyKeyword);
    auto body = ParseExprSingle();
    while (!clauses.empty()) {
      auto clause = std::move(clauses.back());
      clauses.pop_back();
      clause->children.push_back(std::move(body));
      body = Finish(std::move(clause));
    }
    return body;
  }

  std::unique_ptr<Node> ParseIf() {
    auto node = MakeNode(NodeKind::If, Take().offset);
    Expect(TokenKind::LeftParen);
    node->children.push_back(ParseExpr());
    Expect(TokenKind::RightParen);
    Expect(TokenKind::Then);
    node->children.push_back(ParseExprSingle());
    Expect(TokenKind::Else);
    node->children.push_back(ParseExprSingle());
    return Finish(std::move(node));
  }

  struct OperatorEntry {
    TokenKind token;
    Operator op;
  };

  // Left-associative levels: Operand (op Operand)*, with `next` parsing the operands.
  template <std::size_t N>
  std::unique_ptr<Node> ParseLevel(const OperatorEntry (&ops)[N],
                                   std::unique_ptr<Node> (Parser::*next)()) {
    auto left = (this->*next)();
    for (;;) {
      const auto match = std::find_if(std::begin(ops), std::end(ops), [&](const OperatorEntry& e) {
        return e.token == Peek().kind;
      });
      if (match == std::end(ops)) return left;
      Take();
      left = MakeBinary(match->op, std::move(left), (this->*next)());
    }
  }

  std::unique_ptr<Node> ParseOr() {
    static constexpr OperatorEntry ops[] = {{TokenKind::Or, Operator::Or}};
    return ParseLevel(ops, &Parser::ParseAnd);
  }
  std::unique_ptr<Node> ParseAnd() {
    static constexpr OperatorEntry ops[] = {{TokenKind::And, Operator::And}};
    return ParseLevel(ops, &Parser::ParseComparison);
  }
  // ComparisonExpr := RangeExpr (CompOp RangeExpr)?  -- not associative.
  std::unique_ptr<Node> ParseComparison() {
    static constexpr OperatorEntry ops[] = {
        {TokenKind::Equals, Operator::GeneralEqual},
        {TokenKind::NotEquals, Operator::GeneralNotEqual},
        {TokenKind::Less, Operator::GeneralLess},
        {TokenKind::LessEqual, Operator::GeneralLessEqual},
        {TokenKind::Greater, Operator::GeneralGreater},
        {TokenKind::GreaterEqual, Operator::GeneralGreaterEqual},
        {TokenKind::Eq, Operator::ValueEqual},
        {TokenKind::Ne, Operator::ValueNotEqual},
        {TokenKind::Lt, Operator::ValueLess},
        {TokenKind::Le, Operator::ValueLessEqual},
        {TokenKind::Gt, Operator::ValueGreater},
        {TokenKind::Ge, Operator::ValueGreaterEqual},
        {TokenKind::Is, Operator::Is},
        {TokenKind::Precedes, Operator::Precedes},
        {TokenKind::Follows, Operator::Follows}};
    auto left = ParseRange();
    const auto match = std::find_if(std::begin(ops), std::end(ops),
                                    [&](const OperatorEntry& e) { return e.token == Peek().kind; });
    if (match == std::end(ops)) return left;
    Take();
    return MakeBinary(match->op, std::move(left), ParseRange());
  }
  // RangeExpr := Additive ('to' Additive)?  -- not associative.
  std::unique_ptr<Node> ParseRange() {
    auto left = ParseAdditive();
    if (!Accept(TokenKind::To)) return left;
    return MakeBinary(Operator::To, std::move(left), ParseAdditive());
  }
  std::unique_ptr<Node> ParseAdditive() {
    static constexpr OperatorEntry ops[] = {{TokenKind::Plus, Operator::Add},
                                            {TokenKind::Minus, Operator::Subtract}};
    return ParseLevel(ops, &Parser::ParseMultiplicative);
  }
  std::unique_ptr<Node> ParseMultiplicative() {
    static constexpr OperatorEntry ops[] = {{TokenKind::Multiply, Operator::Multiply},
                                            {TokenKind::Div, Operator::Divide},
                                            {TokenKind::Idiv, Operator::IntegerDivide},
                                            {TokenKind::Mod, Operator::Modulo}};
    return ParseLevel(ops, &Parser::ParseUnion);
  }
  std::unique_ptr<Node> ParseUnion() {
    static constexpr OperatorEntry ops[] = {{TokenKind::Pipe, Operator::Union},
                                            {TokenKind::Union, Operator::Union}};
    return ParseLevel(ops, &Parser::ParseIntersect);
  }
  std::unique_ptr<Node> ParseIntersect() {
    static constexpr OperatorEntry ops[] = {{TokenKind::Intersect, Operator::Intersect},
                                            {TokenKind::Except, Operator::Except}};
    return ParseLevel(ops, &Parser::ParseInstanceOf);
  }

  // InstanceofExpr := TreatExpr ('instance' 'of' SequenceType)?
  std::unique_ptr<Node> ParseInstanceOf() {
    auto operand = ParseTreat();
    if (Peek().kind != TokenKind::InstanceOf) return operand;
    Take();
    return MakeTyped(NodeKind::InstanceOf, std::move(operand), ParseSequenceType());
  }
  // TreatExpr := CastableExpr ('treat' 'as' SequenceType)?
  std::unique_ptr<Node> ParseTreat() {
    auto operand = ParseCastable();
    if (Peek().kind != TokenKind::TreatAs) return operand;
    Take();
    return MakeTyped(NodeKind::TreatAs, std::move(operand), ParseSequenceType());
  }
  // CastableExpr := CastExpr ('castable' 'as' SingleType)?
  std::unique_ptr<Node> ParseCastable() {
    auto operand = ParseCast();
    if (Peek().kind != TokenKind::CastableAs) return operand;
    Take();
    return MakeTyped(NodeKind::CastableAs, std::move(operand), ParseSingleType());
  }
  // CastExpr := UnaryExpr ('cast' 'as' SingleType)?
  std::unique_ptr<Node> ParseCast() {
    auto operand = ParseUnary();
    if (Peek().kind != TokenKind::CastAs) return operand;
    Take();
    return MakeTyped(NodeKind::CastAs, std::move(operand), ParseSingleType());
  }

  static std::unique_ptr<Node> MakeTyped(NodeKind kind, std::unique_ptr<Node> operand,
                                         SequenceType type) {
    auto node = MakeNode(kind, operand->offset);
    node->type = std::move(type);
    node->children.push_back(std::move(operand));
    return Finish(std::move(node));
  }

  // A type name: a QName, no wildcard.
  QName ParseTypeName() {
    const Token& token = Peek();
    if (token.kind != TokenKind::NameTest || token.text == u"*" || token.prefix == u"*") {
      throw XPathSyntaxError("expected a type name, found " + Describe(token.kind), token.offset);
    }
    Take();
    return QName{token.prefix, token.text};
  }

  // SingleType := AtomicType '?'?
  SequenceType ParseSingleType() {
    SequenceType type;
    type.item = SequenceType::Item::Atomic;
    type.atomicType = ParseTypeName();
    if (Accept(TokenKind::QuestionMark)) type.occurrence = Occurrence::ZeroOrOne;
    return type;
  }

  // SequenceType := 'empty-sequence' '(' ')' | ItemType OccurrenceIndicator?
  // ItemType := AtomicType | KindTest | 'item' '(' ')'
  // A `?`, `*` or `+` after the item type is always its occurrence indicator (the tokenizer
  // agrees, see Tokenize), so `item() + 1` is an error rather than an addition.
  SequenceType ParseSequenceType() {
    SequenceType type;
    const Token& token = Peek();
    if (token.kind == TokenKind::KindTest &&
        (token.text == u"empty-sequence" || token.text == u"item")) {
      Take();
      Expect(TokenKind::LeftParen);
      Expect(TokenKind::RightParen);
      if (token.text == u"empty-sequence") {
        type.item = SequenceType::Item::Empty;
        if (IsOneOf(Peek().kind, {TokenKind::QuestionMark, TokenKind::Multiply, TokenKind::Plus})) {
          throw XPathSyntaxError("empty-sequence() takes no occurrence indicator", Peek().offset);
        }
        return type;
      }
      type.item = SequenceType::Item::AnyItem;
    } else if (token.kind == TokenKind::KindTest) {
      type.item = SequenceType::Item::Kind;
      type.test = ParseKindTest();
    } else {
      type.item = SequenceType::Item::Atomic;
      type.atomicType = ParseTypeName();
    }
    if (Accept(TokenKind::QuestionMark)) {
      type.occurrence = Occurrence::ZeroOrOne;
    } else if (Accept(TokenKind::Multiply)) {
      type.occurrence = Occurrence::ZeroOrMore;
    } else if (Accept(TokenKind::Plus)) {
      type.occurrence = Occurrence::OneOrMore;
    }
    return type;
  }

  // Unary := ('-' | '+')* Path, read in a loop so that long sign runs need no recursion.
  std::unique_ptr<Node> ParseUnary() {
    std::vector<std::pair<Operator, std::size_t>> signs;
    while (Peek().kind == TokenKind::Minus || Peek().kind == TokenKind::Plus) {
      const Token& sign = Take();
      signs.emplace_back(sign.kind == TokenKind::Minus ? Operator::Negate : Operator::Plus,
                         sign.offset);
    }
    auto operand = ParsePath();
    while (!signs.empty()) {
      auto node = MakeNode(NodeKind::Unary, signs.back().second);
      node->op = signs.back().first;
      signs.pop_back();
      node->children.push_back(std::move(operand));
      operand = Finish(std::move(node));
    }
    return operand;
  }

  static bool IsOneOf(TokenKind kind, std::initializer_list<TokenKind> kinds) {
    return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
  }

  // Whether a token of this kind starts an axis step.
  static bool StartsAxisStep(TokenKind kind) {
    return IsOneOf(kind, {TokenKind::NameTest, TokenKind::KindTest, TokenKind::AxisName,
                          TokenKind::At, TokenKind::DotDot});
  }

  // Whether a token of this kind starts an axis step or a filter expression.
  static bool StartsStep(TokenKind kind) {
    return StartsAxisStep(kind) ||
           IsOneOf(kind, {TokenKind::Dot, TokenKind::Variable, TokenKind::LeftParen,
                          TokenKind::Literal, TokenKind::Number, TokenKind::FunctionName});
  }

  std::unique_ptr<Node> DescendantOrSelfStep(std::size_t offset) {
    auto step = MakeNode(NodeKind::Step, offset);
    step->axis = Axis::DescendantOrSelf;
    step->test.kind = TestKind::AnyNode;
    return Finish(std::move(step));
  }

  // PathExpr := '/' RelativePath? | '//' RelativePath | RelativePath
  // RelativePath := StepExpr (('/' | '//') StepExpr)*
  std::unique_ptr<Node> ParsePath() {
    const Token& first = Peek();
    auto path = MakeNode(NodeKind::Path, first.offset);
    if (Accept(TokenKind::Slash)) {
      path->absolute = true;
      // A lone "/" is the root; what cannot start a step ends the path.
      if (!StartsStep(Peek().kind)) return Finish(std::move(path));
    } else if (Accept(TokenKind::SlashSlash)) {
      path->absolute = true;
      path->children.push_back(DescendantOrSelfStep(first.offset));
    }
    path->children.push_back(ParseStepExpr());
    for (;;) {
      const std::size_t offset = Peek().offset;
      if (Accept(TokenKind::SlashSlash)) {
        path->children.push_back(DescendantOrSelfStep(offset));
      } else if (!Accept(TokenKind::Slash)) {
        break;
      }
      path->children.push_back(ParseStepExpr());
    }
    if (!path->absolute && path->children.size() == 1 &&
        path->children[0]->kind != NodeKind::Step) {
      return std::move(path->children[0]);
    }
    return Finish(std::move(path));
  }

  // StepExpr := AxisStep | FilterExpr
  std::unique_ptr<Node> ParseStepExpr() {
    return StartsAxisStep(Peek().kind) ? ParseAxisStep() : ParseFilter();
  }

  std::unique_ptr<Node> ParseAxisStep() {
    const Token& first = Peek();
    auto step = MakeNode(NodeKind::Step, first.offset);
    if (Accept(TokenKind::DotDot)) {
      // ".." takes no predicates in XPath 1.0; XPath 2.0 allows them.
      step->axis = Axis::Parent;
      step->test.kind = TestKind::AnyNode;
    } else if (Accept(TokenKind::At)) {
      step->axis = Axis::Attribute;
      ParseNodeTest(*step);
    } else if (first.kind == TokenKind::AxisName) {
      const auto match = std::find_if(std::begin(Axes), std::end(Axes),
                                      [&](const AxisEntry& e) { return e.name == first.text; });
      if (match == std::end(Axes)) throw XPathSyntaxError("unknown axis", first.offset);
      Take();
      step->axis = match->axis;
      Expect(TokenKind::ColonColon);
      ParseNodeTest(*step);
    } else {  // the token is the node test itself
      ParseNodeTest(*step);
      // Attributes are never children: a step that can only select attributes goes along the
      // attribute axis.
      const bool attributeTest =
          step->test.kind == TestKind::Attribute || step->test.kind == TestKind::SchemaAttribute;
      step->axis = attributeTest ? Axis::Attribute : Axis::Child;
    }
    ParsePredicates(*step);
    return Finish(std::move(step));
  }

  void ParseNodeTest(Node& step) {
    const Token& token = Peek();
    NodeTest& test = step.test;
    if (token.kind == TokenKind::NameTest) {
      Take();
      if (token.prefix == u"*") {
        test.kind = TestKind::AnyPrefix;
        test.name.local = token.text;
      } else if (token.text == u"*") {
        test.kind = token.prefix.empty() ? TestKind::AnyName : TestKind::AnyLocalName;
        test.name.prefix = token.prefix;
      } else {
        test.kind = TestKind::Name;
        test.name = QName{token.prefix, token.text};
      }
      return;
    }
    if (token.kind != TokenKind::KindTest) {
      throw XPathSyntaxError("expected a node test, found " + Describe(token.kind), token.offset);
    }
    if (token.text == u"item" || token.text == u"empty-sequence") {
      // Only a sequence type may name them; the names are ASCII.
      throw XPathSyntaxError(
          std::string(token.text.begin(), token.text.end()) + "() is not a node test",
          token.offset);
    }
    test = ParseKindTest();
  }

  // Whether the next token is a type name, not a wildcard.
  bool AtTypeName() const {
    return Peek().kind == TokenKind::NameTest && Peek().text != u"*" && Peek().prefix != u"*";
  }

  // KindTest: a KindTest token (not item or empty-sequence) and its parenthesised arguments.
  NodeTest ParseKindTest() {
    const Token& token = Take();
    Expect(TokenKind::LeftParen);
    NodeTest test;
    const std::u16string& name = token.text;
    if (name == u"node") {
      test.kind = TestKind::AnyNode;
    } else if (name == u"text") {
      test.kind = TestKind::Text;
    } else if (name == u"comment") {
      test.kind = TestKind::Comment;
    } else if (name == u"processing-instruction") {
      test.kind = TestKind::ProcessingInstruction;
      const Token& target = Peek();
      const bool ncName =
          target.kind == TokenKind::NameTest && target.prefix.empty() && target.text != u"*";
      if (target.kind == TokenKind::Literal || ncName) {
        test.hasTarget = true;
        test.target = Take().text;
      }
    } else if (name == u"element" || name == u"attribute") {
      test.kind = name == u"element" ? TestKind::Element : TestKind::Attribute;
      // (), (*), (N), (* , T), (N, T); an element's type may end in `?`.
      const Token& first = Peek();
      const bool wildcard =
          first.kind == TokenKind::NameTest && first.text == u"*" && first.prefix.empty();
      if (wildcard) {
        Take();
      } else if (AtTypeName()) {
        test.hasName = true;
        test.name = ParseTypeName();
      }
      if ((wildcard || test.hasName) && Accept(TokenKind::Comma)) {
        test.hasType = true;
        test.typeName = ParseTypeName();
        test.nillable = test.kind == TestKind::Element && Accept(TokenKind::QuestionMark);
      }
    } else if (name == u"schema-element" || name == u"schema-attribute") {
      test.kind = name == u"schema-element" ? TestKind::SchemaElement : TestKind::SchemaAttribute;
      test.name = ParseTypeName();
    } else if (name == u"document-node") {
      test.kind = TestKind::DocumentNode;
      const Token& inner = Peek();
      if (inner.kind == TokenKind::KindTest &&
          (inner.text == u"element" || inner.text == u"schema-element")) {
        test.element = std::make_shared<const NodeTest>(ParseKindTest());
      }
    } else {
      throw XPathSyntaxError("expected a node test, found " + Describe(token.kind), token.offset);
    }
    Expect(TokenKind::RightParen);
    return test;
  }

  void ParsePredicates(Node& node) {
    while (Accept(TokenKind::LeftBracket)) {
      node.predicates.push_back(ParseExpr());
      Expect(TokenKind::RightBracket);
    }
  }

  // FilterExpr := Primary Predicate*
  std::unique_ptr<Node> ParseFilter() {
    auto primary = ParsePrimary();
    if (Peek().kind != TokenKind::LeftBracket) return primary;
    auto filter = MakeNode(NodeKind::Filter, primary->offset);
    filter->children.push_back(std::move(primary));
    ParsePredicates(*filter);
    return Finish(std::move(filter));
  }

  std::unique_ptr<Node> ParsePrimary() {
    const Token& token = Peek();
    if (token.kind == TokenKind::Literal) {
      auto node = MakeNode(NodeKind::Literal, token.offset);
      node->text = Take().text;
      return node;
    }
    if (token.kind == TokenKind::Number) {
      auto node = MakeNode(NodeKind::Number, token.offset);
      node->text = token.text;
      node->number = token.number;
      node->numberForm = token.numberForm;
      Take();
      return node;
    }
    if (token.kind == TokenKind::Variable) {
      auto node = MakeNode(NodeKind::Variable, token.offset);
      node->name = QName{token.prefix, token.text};
      Take();
      return node;
    }
    if (token.kind == TokenKind::Dot) return MakeNode(NodeKind::Context, Take().offset);
    if (token.kind == TokenKind::FunctionName) return ParseCall();
    if (token.kind != TokenKind::LeftParen) Unexpected();
    // A parenthesised expression leaves no node of its own; "()" is the empty sequence.
    const std::size_t offset = Take().offset;
    if (Accept(TokenKind::RightParen)) return MakeNode(NodeKind::Sequence, offset);
    auto inner = ParseExpr();
    Expect(TokenKind::RightParen);
    return inner;
  }

  std::unique_ptr<Node> ParseCall() {
    const Token& name = Peek();
    // Other reserved names come as kind tests or `if`; typeswitch has no place in XPath.
    if (name.prefix.empty() && name.text == u"typeswitch") {
      throw XPathSyntaxError("'typeswitch' is not a function", name.offset);
    }
    Take();
    auto call = MakeNode(NodeKind::Call, name.offset);
    call->name = QName{name.prefix, name.text};
    Expect(TokenKind::LeftParen);
    if (!Accept(TokenKind::RightParen)) {
      do {
        call->children.push_back(ParseExprSingle());
      } while (Accept(TokenKind::Comma));
      Expect(TokenKind::RightParen);
    }
    return Finish(std::move(call));
  }

  std::vector<Token> tokens_;
  std::size_t next_ = 0;
  int depth_ = 0;
  int maxDepth_;
};

}  // namespace

std::unique_ptr<Node> Parse(std::u16string_view text, int maxNestingDepth) {
  return Parser(Tokenize(text), maxNestingDepth).Run();
}

std::u16string_view AxisName(Axis axis) {
  for (const AxisEntry& entry : Axes) {
    if (entry.axis == axis) return entry.name;
  }
  return u"child";
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
