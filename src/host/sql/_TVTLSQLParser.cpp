#include "_TVTLSQLParser.h"

#include <memory>
#include <utility>
#include <variant>

#include "_Classes.h"

namespace docadmin {

ESQLParserError::ESQLParserError(int position, const std::string& what)
    : Exception("Syntax error in where-text at position " + std::to_string(position) + ": " + what),
      FPosition(position) {}

namespace {

enum class TokKind { End, Ident, QuotedIdent, String, Number, Op, LParen, RParen, Comma };

struct Token {
    TokKind Kind = TokKind::End;
    std::string Text;  // identifier or value without quotes; the operator's characters
    int Pos = 0;       // 1-based
};

bool IsIdentStart(char c) {
    const auto u = static_cast<unsigned char>(c);
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || u >= 0x80;
}

bool IsIdentChar(char c) {
    return IsIdentStart(c) || (c >= '0' && c <= '9') || c == '.' || c == '$';
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string Upper(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
}

std::vector<Token> Tokenize(const std::string& s) {
    std::vector<Token> out;
    const size_t n = s.size();
    size_t p = 0;
    auto at = [&](size_t i) { return i < n ? s[i] : '\0'; };
    while (true) {
        while (p < n && (s[p] == ' ' || s[p] == '\t' || s[p] == '\r' || s[p] == '\n'))
            ++p;
        Token t;
        t.Pos = static_cast<int>(p) + 1;
        if (p >= n) {
            out.push_back(t);
            return out;
        }
        const char c = s[p];
        if (c == '\'' || c == '"') {
            // Quoted string or identifier; the quote character doubled stands for itself.
            t.Kind = c == '\'' ? TokKind::String : TokKind::QuotedIdent;
            ++p;
            bool closed = false;
            while (p < n) {
                if (s[p] == c) {
                    if (at(p + 1) == c) {
                        t.Text += c;
                        p += 2;
                        continue;
                    }
                    ++p;
                    closed = true;
                    break;
                }
                t.Text += s[p++];
            }
            if (!closed) throw ESQLParserError(t.Pos, "unterminated quoted text");
            if (t.Kind == TokKind::QuotedIdent && t.Text.empty())
                throw ESQLParserError(t.Pos, "empty field name");
        } else if (IsDigit(c) ||
                   ((c == '-' || c == '+' || c == '.') &&
                    (IsDigit(at(p + 1)) || (at(p + 1) == '.' && IsDigit(at(p + 2)))))) {
            t.Kind = TokKind::Number;
            size_t q = p;
            if (s[q] == '-' || s[q] == '+') ++q;
            while (IsDigit(at(q)))
                ++q;
            if (at(q) == '.') {
                ++q;
                while (IsDigit(at(q)))
                    ++q;
            }
            if ((at(q) == 'e' || at(q) == 'E') &&
                (IsDigit(at(q + 1)) ||
                 ((at(q + 1) == '+' || at(q + 1) == '-') && IsDigit(at(q + 2))))) {
                q += 2;
                while (IsDigit(at(q)))
                    ++q;
            }
            if (IsIdentChar(at(q))) throw ESQLParserError(t.Pos, "malformed number");
            t.Text = s.substr(p, q - p);
            p = q;
        } else if (IsIdentStart(c)) {
            t.Kind = TokKind::Ident;
            const size_t q0 = p;
            while (p < n && IsIdentChar(s[p]))
                ++p;
            t.Text = s.substr(q0, p - q0);
        } else if (c == '(' || c == ')' || c == ',') {
            t.Kind = c == '(' ? TokKind::LParen : c == ')' ? TokKind::RParen : TokKind::Comma;
            t.Text = std::string(1, c);
            ++p;
        } else if (c == '=' || c == '<' || c == '>' || c == '!') {
            t.Kind = TokKind::Op;
            const char d = at(p + 1);
            if ((c == '=' && d == '=') || (c == '<' && (d == '>' || d == '=')) ||
                (c == '>' && d == '=') || (c == '!' && d == '=')) {
                t.Text = s.substr(p, 2);
                p += 2;
            } else if (c == '!') {
                throw ESQLParserError(t.Pos, "unexpected character '!'");
            } else {
                t.Text = std::string(1, c);
                ++p;
            }
        } else {
            throw ESQLParserError(t.Pos, std::string("unexpected character '") + c + "'");
        }
        out.push_back(std::move(t));
    }
}

// The expression as read, before it becomes groups.
struct Node;
struct Compound {
    int Op = plAnd;  // plAnd or plOr
    std::vector<Node> Items;
};
struct Node {
    std::variant<TSQLParserFilter, Compound> V;
};

class Parser {
  public:
    explicit Parser(std::vector<Token> toks) : FToks(std::move(toks)) {}

    Node ParseWhere() {
        Node n = ParseOr(0);
        if (Peek().Kind != TokKind::End) {
            if (Peek().Kind == TokKind::RParen) Fail("unbalanced ')'");
            Fail("expected AND, OR or the end of the text");
        }
        return n;
    }

  private:
    const Token& Peek() const { return FToks[FPos]; }
    Token Next() { return FToks[FPos++]; }
    [[noreturn]] void Fail(const std::string& what) const {
        throw ESQLParserError(Peek().Pos, what);
    }
    [[noreturn]] void FailAt(const Token& t, const std::string& what) const {
        throw ESQLParserError(t.Pos, what);
    }

    bool IsKeyword(const Token& t, const char* kw) const {
        return t.Kind == TokKind::Ident && Upper(t.Text) == kw;
    }

    static void Append(Compound& c, Node n) {
        // Parentheses around the same operator add nothing: merge their items.
        if (auto* inner = std::get_if<Compound>(&n.V); inner && inner->Op == c.Op) {
            for (auto& item : inner->Items)
                c.Items.push_back(std::move(item));
        } else {
            c.Items.push_back(std::move(n));
        }
    }

    Node ParseChain(int depth, int op) {
        Node first = op == plOr ? ParseChain(depth, plAnd) : ParsePrimary(depth);
        const char* kw = op == plOr ? "OR" : "AND";
        if (!IsKeyword(Peek(), kw)) return first;
        Compound c;
        c.Op = op;
        Append(c, std::move(first));
        while (IsKeyword(Peek(), kw)) {
            Next();
            Append(c, op == plOr ? ParseChain(depth, plAnd) : ParsePrimary(depth));
        }
        return Node{std::move(c)};
    }

    Node ParseOr(int depth) { return ParseChain(depth, plOr); }

    Node ParsePrimary(int depth) {
        if (Peek().Kind == TokKind::LParen) {
            if (depth >= TVTLSQLParser::MaxNesting) Fail("parentheses nested too deeply");
            Next();
            Node n = ParseOr(depth + 1);
            if (Peek().Kind != TokKind::RParen) Fail("expected ')'");
            Next();
            return n;
        }
        return Node{ParseComparison()};
    }

    static bool IsReserved(const Token& t) {
        if (t.Kind != TokKind::Ident) return false;
        const std::string u = Upper(t.Text);
        return u == "AND" || u == "OR" || u == "NOT" || u == "IN" || u == "LIKE";
    }

    // An operand: sets text and kind; an unquoted keyword is no operand.
    void ParseOperand(std::string& text, int& kind, const char* what) {
        const Token& t = Peek();
        switch (t.Kind) {
            case TokKind::Ident:
                if (IsReserved(t)) Fail(std::string("expected ") + what);
                [[fallthrough]];
            case TokKind::QuotedIdent:
                text = t.Text;
                kind = pvkFieldName;
                break;
            case TokKind::String:
            case TokKind::Number:
                text = t.Text;
                kind = pvkValue;
                break;
            default:
                Fail(std::string("expected ") + what);
        }
        Next();
    }

    TSQLParserFilter ParseComparison() {
        TSQLParserFilter f;
        f.Position = Peek().Pos;
        if (Peek().Kind == TokKind::End || Peek().Kind == TokKind::RParen)
            Fail("expected a comparison");
        ParseOperand(f.LeftValue, f.LeftKind, "a field name or a value");

        const Token op = Peek();
        if (op.Kind == TokKind::Op) {
            Next();
            if (op.Text == "=")
                f.Compare = TSQLParserCompare::pcEqual;
            else if (op.Text == "==")
                f.Compare = TSQLParserCompare::pcExact;
            else if (op.Text == "<>" || op.Text == "!=")
                f.Compare = TSQLParserCompare::pcNotEqual;
            else if (op.Text == "<")
                f.Compare = TSQLParserCompare::pcLess;
            else if (op.Text == "<=")
                f.Compare = TSQLParserCompare::pcLessEqual;
            else if (op.Text == ">")
                f.Compare = TSQLParserCompare::pcGreater;
            else
                f.Compare = TSQLParserCompare::pcGreaterEqual;
        } else if (IsKeyword(op, "LIKE")) {
            Next();
            f.Compare = TSQLParserCompare::pcLike;
        } else if (IsKeyword(op, "IN") || IsKeyword(op, "NOT")) {
            Next();
            f.Compare = TSQLParserCompare::pcIn;
            if (IsKeyword(op, "NOT")) {
                if (!IsKeyword(Peek(), "IN")) Fail("expected IN after NOT");
                Next();
                f.Compare = TSQLParserCompare::pcNotIn;
            }
            ParseList(f);
            return f;
        } else {
            Fail("expected a comparison operator");
        }
        ParseOperand(f.RightValue, f.RightKind, "a field name or a value");
        f.RightValues.push_back(f.RightValue);
        return f;
    }

    void ParseList(TSQLParserFilter& f) {
        if (Peek().Kind != TokKind::LParen) Fail("expected '(' to open the list");
        Next();
        while (true) {
            const Token& t = Peek();
            if (t.Kind != TokKind::String && t.Kind != TokKind::Number)
                Fail("expected a quoted string or a number in the list");
            f.RightValues.push_back(t.Text);
            Next();
            if (Peek().Kind == TokKind::Comma) {
                Next();
                continue;
            }
            if (Peek().Kind == TokKind::RParen) {
                Next();
                break;
            }
            Fail("expected ',' or ')' in the list");
        }
        TStringList l;
        l.StrictDelimiter = true;
        l.Items() = f.RightValues;
        f.RightValue = l.DelimitedText();
        f.RightKind = pvkValue;
    }

    std::vector<Token> FToks;
    size_t FPos = 0;
};

void BuildGroup(Node& n, TSQLParserFilterGroup& g) {
    if (auto* f = std::get_if<TSQLParserFilter>(&n.V)) {
        f->Link = plNone;
        g.Filters.push_back(std::move(*f));
        return;
    }
    auto& c = std::get<Compound>(n.V);
    for (auto& item : c.Items) {
        if (auto* f = std::get_if<TSQLParserFilter>(&item.V)) {
            f->Link = g.Filters.empty() ? plNone : c.Op;
            g.Filters.push_back(std::move(*f));
        } else {
            TSQLParserFilterGroup sub;
            sub.Link = c.Op;
            BuildGroup(item, sub);
            g.Groups.push_back(std::move(sub));
        }
    }
}

}  // namespace

void TVTLSQLParser::ParseSQL(const std::string& AText) {
    FSQLText = AText;
    FWhereGroup = TSQLParserFilterGroup{};
    std::vector<Token> toks = Tokenize(AText);
    if (toks.size() == 1) return;  // only the end: an empty where-text
    Parser p(std::move(toks));
    Node root = p.ParseWhere();
    TSQLParserFilterGroup g;
    BuildGroup(root, g);
    FWhereGroup = std::move(g);
}

}  // namespace docadmin
