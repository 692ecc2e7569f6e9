// The two printed forms of an expression tree: S-expressions for tests and diagnostics, and
// XPath text that parses back to the same tree.
#include "xml/xpath/XPathParser.h"

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

void AppendUtf8(std::string& out, std::u16string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;  // an unpaired surrogate
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
}

std::u16string NameText(const QName& name) {
  return name.prefix.empty() ? name.local : name.prefix + u":" + name.local;
}

// The source spelling of a binary operator.
std::u16string_view OperatorText(Operator op) {
  switch (op) {
    case Operator::Or:
      return u"or";
    case Operator::And:
      return u"and";
    case Operator::GeneralEqual:
      return u"=";
    case Operator::GeneralNotEqual:
      return u"!=";
    case Operator::GeneralLess:
      return u"<";
    case Operator::GeneralLessEqual:
      return u"<=";
    case Operator::GeneralGreater:
      return u">";
    case Operator::GeneralGreaterEqual:
      return u">=";
    case Operator::ValueEqual:
      return u"eq";
    case Operator::ValueNotEqual:
      return u"ne";
    case Operator::ValueLess:
      return u"lt";
    case Operator::ValueLessEqual:
      return u"le";
    case Operator::ValueGreater:
      return u"gt";
    case Operator::ValueGreaterEqual:
      return u"ge";
    case Operator::Is:
      return u"is";
    case Operator::Precedes:
      return u"<<";
    case Operator::Follows:
      return u">>";
    case Operator::To:
      return u"to";
    case Operator::Add:
      return u"+";
    case Operator::Subtract:
      return u"-";
    case Operator::Multiply:
      return u"*";
    case Operator::Divide:
      return u"div";
    case Operator::IntegerDivide:
      return u"idiv";
    case Operator::Modulo:
      return u"mod";
    case Operator::Union:
      return u"union";
    case Operator::Intersect:
      return u"intersect";
    case Operator::Except:
      return u"except";
    case Operator::Negate:
      return u"-";
    case Operator::Plus:
      return u"+";
  }
  return u"?";
}

// A string literal in double quotes, inner quotes doubled.
std::u16string Quoted(const std::u16string& text) {
  std::u16string out = u"\"";
  for (const char16_t c : text) {
    out += c;
    if (c == u'"') out += c;
  }
  return out + u"\"";
}

std::u16string TestText(const NodeTest& test) {
  switch (test.kind) {
    case TestKind::Name:
      return NameText(test.name);
    case TestKind::AnyName:
      return u"*";
    case TestKind::AnyLocalName:
      return test.name.prefix + u":*";
    case TestKind::AnyPrefix:
      return u"*:" + test.name.local;
    case TestKind::AnyNode:
      return u"node()";
    case TestKind::Text:
      return u"text()";
    case TestKind::Comment:
      return u"comment()";
    case TestKind::ProcessingInstruction:
      return test.hasTarget ? u"processing-instruction(" + Quoted(test.target) + u")"
                            : u"processing-instruction()";
    case TestKind::Element:
    case TestKind::Attribute: {
      std::u16string out = test.kind == TestKind::Element ? u"element(" : u"attribute(";
      if (test.hasName) {
        out += NameText(test.name);
      } else if (test.hasType) {
        out += u"*";
      }
      if (test.hasType) out += u", " + NameText(test.typeName) + (test.nillable ? u"?" : u"");
      return out + u")";
    }
    case TestKind::DocumentNode:
      return u"document-node(" + (test.element ? TestText(*test.element) : u"") + u")";
    case TestKind::SchemaElement:
      return u"schema-element(" + NameText(test.name) + u")";
    case TestKind::SchemaAttribute:
      return u"schema-attribute(" + NameText(test.name) + u")";
  }
  return u"?";
}

// A sequence type as written, e.g. "element(a)*".
std::u16string TypeText(const SequenceType& type) {
  std::u16string out;
  switch (type.item) {
    case SequenceType::Item::Empty:
      return u"empty-sequence()";
    case SequenceType::Item::AnyItem:
      out = u"item()";
      break;
    case SequenceType::Item::Atomic:
      out = NameText(type.atomicType);
      break;
    case SequenceType::Item::Kind:
      out = TestText(type.test);
      break;
  }
  switch (type.occurrence) {
    case Occurrence::One:
      return out;
    case Occurrence::ZeroOrOne:
      return out + u"?";
    case Occurrence::ZeroOrMore:
      return out + u"*";
    case Occurrence::OneOrMore:
      return out + u"+";
  }
  return out;
}

// The source spelling of a type operator, e.g. "instance of".
std::u16string_view TypeOperatorText(NodeKind kind) {
  if (kind == NodeKind::InstanceOf) return u"instance of";
  if (kind == NodeKind::TreatAs) return u"treat as";
  return kind == NodeKind::CastAs ? u"cast as" : u"castable as";
}

std::u16string_view BindingKeyword(NodeKind kind) {
  return kind == NodeKind::For ? u"for" : kind == NodeKind::Some ? u"some" : u"every";
}

class SExpressionPrinter {
 public:
  std::string Print(const Node& node) {
    Write(node);
    return std::move(out_);
  }

 private:
  void Text(std::u16string_view text) { AppendUtf8(out_, text); }

  void Children(const Node& node) {
    for (const auto& child : node.children) {
      out_ += ' ';
      Write(*child);
    }
  }
  void Predicates(const Node& node) {
    for (const auto& pred : node.predicates) {
      out_ += " (pred ";
      Write(*pred);
      out_ += ')';
    }
  }

  void Write(const Node& node) {
    switch (node.kind) {
      case NodeKind::Literal: {
        std::u16string escaped;
        for (const char16_t c : node.text) {
          if (c == u'"' || c == u'\\') escaped += u'\\';
          escaped += c;
        }
        out_ += "(literal \"";
        Text(escaped);
        out_ += "\")";
        return;
      }
      case NodeKind::Number:
        out_ += "(number ";
        Text(node.text);
        out_ += ')';
        return;
      case NodeKind::Variable:
        out_ += "(var ";
        Text(NameText(node.name));
        out_ += ')';
        return;
      case NodeKind::Context:
        out_ += "(context)";
        return;
      case NodeKind::Call:
        out_ += "(call ";
        Text(NameText(node.name));
        Children(node);
        out_ += ')';
        return;
      case NodeKind::Sequence:
        out_ += "(seq";
        Children(node);
        out_ += ')';
        return;
      case NodeKind::Filter:
        out_ += "(filter ";
        Write(*node.children[0]);
        Predicates(node);
        out_ += ')';
        return;
      case NodeKind::Path:
        out_ += node.absolute ? "(path /" : "(path";
        Children(node);
        out_ += ')';
        return;
      case NodeKind::Step:
        out_ += "(step ";
        Text(AxisName(node.axis));
        out_ += ' ';
        Text(TestText(node.test));
        Predicates(node);
        out_ += ')';
        return;
      case NodeKind::Binary:
        out_ += '(';
        Text(OperatorText(node.op));
        Children(node);
        out_ += ')';
        return;
      case NodeKind::Unary:
        out_ += node.op == Operator::Negate ? "(neg" : "(pos";
        Children(node);
        out_ += ')';
        return;
      case NodeKind::If:
        out_ += "(if";
        Children(node);
        out_ += ')';
        return;
      case NodeKind::For:
      case NodeKind::Some:
      case NodeKind::Every:
        out_ += '(';
        Text(BindingKeyword(node.kind));
        out_ += " $";
        Text(NameText(node.name));
        Children(node);
        out_ += ')';
        return;
      case NodeKind::InstanceOf:
      case NodeKind::TreatAs:
      case NodeKind::CastAs:
      case NodeKind::CastableAs: {
        // "instance of" -> "instance-of": one word per S-expression atom.
        std::u16string name(TypeOperatorText(node.kind));
        name[name.find(u' ')] = u'-';
        out_ += '(';
        Text(name);
        Children(node);
        out_ += ' ';
        Text(TypeText(node.type));
        out_ += ')';
        return;
      }
    }
  }

  std::string out_;
};

class XPathPrinter {
 public:
  std::u16string Print(const Node& node) {
    Write(node);
    return std::move(out_);
  }

 private:
  void Predicates(const Node& node) {
    for (const auto& pred : node.predicates) {
      out_ += u"[";
      Write(*pred);
      out_ += u"]";
    }
  }

  void Parenthesised(const Node& node) {
    out_ += u"(";
    Write(node);
    out_ += u")";
  }

  void Write(const Node& node) {
    switch (node.kind) {
      case NodeKind::Literal:
        out_ += Quoted(node.text);
        return;
      case NodeKind::Number:
        out_ += node.text;
        return;
      case NodeKind::Variable:
        out_ += u"$" + NameText(node.name);
        return;
      case NodeKind::Context:
        out_ += u".";
        return;
      case NodeKind::Call:
      case NodeKind::Sequence:
        if (node.kind == NodeKind::Call) out_ += NameText(node.name);
        out_ += u"(";
        for (std::size_t i = 0; i < node.children.size(); ++i) {
          if (i > 0) out_ += u", ";
          Write(*node.children[i]);
        }
        out_ += u")";
        return;
      case NodeKind::Filter:
        out_ += u"(";
        Parenthesised(*node.children[0]);
        Predicates(node);
        out_ += u")";
        return;
      case NodeKind::Path:
        out_ += node.absolute ? u"(/" : u"(";
        for (std::size_t i = 0; i < node.children.size(); ++i) {
          if (i > 0) out_ += u"/";
          if (node.children[i]->kind == NodeKind::Step) {
            Write(*node.children[i]);
          } else {
            Parenthesised(*node.children[i]);
          }
        }
        out_ += u")";
        return;
      case NodeKind::Step:
        out_ += AxisName(node.axis);
        out_ += u"::" + TestText(node.test);
        Predicates(node);
        return;
      case NodeKind::Binary:
        out_ += u"(";
        Write(*node.children[0]);
        out_ += u" ";
        out_ += OperatorText(node.op);
        out_ += u" ";
        Write(*node.children[1]);
        out_ += u")";
        return;
      case NodeKind::Unary:
        out_ += u"(";
        out_ += OperatorText(node.op);
        Write(*node.children[0]);
        out_ += u")";
        return;
      case NodeKind::If:
        out_ += u"(if (";
        Write(*node.children[0]);
        out_ += u") then ";
        Write(*node.children[1]);
        out_ += u" else ";
        Write(*node.children[2]);
        out_ += u")";
        return;
      case NodeKind::For:
      case NodeKind::Some:
      case NodeKind::Every:
        out_ += u"(";
        out_ += BindingKeyword(node.kind);
        out_ += u" $" + NameText(node.name) + u" in ";
        Write(*node.children[0]);
        out_ += node.kind == NodeKind::For ? u" return " : u" satisfies ";
        Write(*node.children[1]);
        out_ += u")";
        return;
      case NodeKind::InstanceOf:
      case NodeKind::TreatAs:
      case NodeKind::CastAs:
      case NodeKind::CastableAs:
        out_ += u"(";
        Write(*node.children[0]);
        out_ += u" ";
        out_ += TypeOperatorText(node.kind);
        out_ += u" ";
        out_ += TypeText(node.type);
        out_ += u")";
        return;
    }
  }

  std::u16string out_;
};

}  // namespace

std::string ToSExpression(const Node& node) {
  return SExpressionPrinter().Print(node);
}

std::u16string ToXPath(const Node& node) {
  return XPathPrinter().Print(node);
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
