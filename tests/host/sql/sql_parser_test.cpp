#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "_Classes.h"
#include "_TVTLSQLParser.h"

using namespace docadmin;

namespace {

const char* OpText(TSQLParserCompare c) {
    static const char* names[] = {
        "=", "==", "<>", "<", "<=", ">", ">=", " LIKE ", " IN ", " NOT IN "};
    return names[static_cast<int>(c)];
}

std::string LinkText(int link) {
    return link == plAnd ? "AND " : link == plOr ? "OR " : "";
}

std::string Side(const std::string& text, int kind) {
    return kind == pvkFieldName ? text : "'" + text + "'";
}

// A compact picture of a tree: {filters subgroups}, each with its link.
std::string Describe(const TSQLParserFilterGroup& g) {
    std::string s = LinkText(g.Link) + "{";
    bool first = true;
    auto sep = [&] {
        if (!first) s += " ";
        first = false;
    };
    for (const auto& f : g.Filters) {
        sep();
        s += LinkText(f.Link) + Side(f.LeftValue, f.LeftKind) + OpText(f.Compare) +
             Side(f.RightValue, f.RightKind);
    }
    for (const auto& sub : g.Groups) {
        sep();
        s += Describe(sub);
    }
    return s + "}";
}

std::string Parse(const std::string& text) {
    TVTLSQLParser p;
    p.ParseSQL(text);
    return Describe(p.WhereGroup());
}

// Runs the parser on text that must fail and gives the reported position.
int ErrorPosition(const std::string& text) {
    TVTLSQLParser p;
    try {
        p.ParseSQL(text);
    } catch (const ESQLParserError& e) {
        EXPECT_NE(e.Message().find("position " + std::to_string(e.Position())), std::string::npos)
            << e.Message();
        EXPECT_TRUE(p.WhereGroup().IsEmpty());
        return e.Position();
    }
    ADD_FAILURE() << "no error for: " << text;
    return -1;
}

}  // namespace

TEST(SqlParser, SingleComparisonKeepsSidesKindsAndPosition) {
    TVTLSQLParser p;
    p.ParseSQL("  docname = 'report.pdf'");
    const auto& g = p.WhereGroup();
    EXPECT_EQ(g.Link, plNone);
    ASSERT_EQ(g.FilterCount(), 1);
    EXPECT_EQ(g.GroupCount(), 0);
    const auto& f = g.Filter(0);
    EXPECT_EQ(f.LeftValue, "docname");
    EXPECT_EQ(f.LeftKind, pvkFieldName);
    EXPECT_EQ(f.RightValue, "report.pdf");
    EXPECT_EQ(f.RightKind, pvkValue);
    EXPECT_EQ(f.RightValues, std::vector<std::string>{"report.pdf"});
    EXPECT_EQ(f.Compare, TSQLParserCompare::pcEqual);
    EXPECT_EQ(f.Link, plNone);
    EXPECT_EQ(f.Position, 3);
    EXPECT_EQ(p.SQLText(), "  docname = 'report.pdf'");
}

// The document filters translate comparison kinds into filter types by a fixed table; the numbers
// of the parser must land on the filter types that mean the same comparison.
TEST(SqlParser, ComparisonNumbersTranslateToMatchingFilterTypes) {
    const int toFilterType[10] = {0, 1, 6, 2, 4, 3, 5, 7, 8, 9};
    struct Case {
        const char* text;
        int filterType;  // 0 =, 1 ==, 2 <, 3 >, 4 <=, 5 >=, 6 <>, 7 like, 8 in, 9 not in
    } cases[] = {
        {"a = 1", 0},       {"a == 1", 1},      {"a < 1", 2},        {"a > 1", 3},
        {"a <= 1", 4},      {"a >= 1", 5},      {"a <> 1", 6},       {"a != 1", 6},
        {"a LIKE 'x%'", 7}, {"a IN (1, 2)", 8}, {"a NOT IN (1)", 9},
    };
    for (const auto& c : cases) {
        TVTLSQLParser p;
        p.ParseSQL(c.text);
        ASSERT_EQ(p.WhereGroup().FilterCount(), 1) << c.text;
        const int kind = static_cast<int>(p.WhereGroup().Filter(0).Compare);
        ASSERT_GE(kind, 0);
        ASSERT_LE(kind, 9);
        EXPECT_EQ(toFilterType[kind], c.filterType) << c.text;
    }
}

TEST(SqlParser, AndBindsTighterThanOrUnlessParenthesesSayOtherwise) {
    EXPECT_EQ(Parse("a=1 OR b=2 AND c=3"), "{a='1' OR {b='2' AND c='3'}}");
    // The group's own comparisons come first; the AND pair becomes a subgroup linked by OR.
    EXPECT_EQ(Parse("a=1 AND b=2 OR c=3"), "{c='3' OR {a='1' AND b='2'}}");
    EXPECT_EQ(Parse("a=1 AND b=2 AND c=3"), "{a='1' AND b='2' AND c='3'}");
    EXPECT_EQ(Parse("a=1 OR b=2 OR c=3"), "{a='1' OR b='2' OR c='3'}");
    // Parentheses override precedence; the same operator inside merges.
    EXPECT_EQ(Parse("(a=1 OR b=2) AND c=3"), "{c='3' AND {a='1' OR b='2'}}");
    EXPECT_EQ(Parse("a=1 AND (b=2 AND c=3)"), "{a='1' AND b='2' AND c='3'}");
    EXPECT_EQ(Parse("((a=1))"), "{a='1'}");
    EXPECT_EQ(Parse("a=1 AND (b=2 OR (c=3 AND d=4))"), "{a='1' AND {b='2' OR {c='3' AND d='4'}}}");
    EXPECT_EQ(Parse("(a=1 OR b=2) AND (c=3 OR d=4)"),
              "{AND {a='1' OR b='2'} AND {c='3' OR d='4'}}");
}

TEST(SqlParser, KeywordsIgnoreCaseAndNeedQuotesAsFieldNames) {
    EXPECT_EQ(Parse("a = 1 and b like 'x%' Or c not in (1)"),
              "{c NOT IN '1' OR {a='1' AND b LIKE 'x%'}}");
    EXPECT_EQ(Parse("\"and\" = 1"), "{and='1'}");
    EXPECT_EQ(Parse("\"my \"\"odd\"\" field\" = 1"), "{my \"odd\" field='1'}");
    EXPECT_EQ(ErrorPosition("and = 1"), 1);
}

TEST(SqlParser, QuotedStringsAndNumbersAreValues) {
    TVTLSQLParser p;
    p.ParseSQL("name = 'O''Brien' AND size >= -1.5e3 AND note = '' AND t = 'Größe ä'");
    const auto& g = p.WhereGroup();
    ASSERT_EQ(g.FilterCount(), 4);
    EXPECT_EQ(g.Filter(0).RightValue, "O'Brien");
    EXPECT_EQ(g.Filter(1).RightValue, "-1.5e3");
    EXPECT_EQ(g.Filter(1).RightKind, pvkValue);
    EXPECT_EQ(g.Filter(2).RightValue, "");
    EXPECT_EQ(g.Filter(2).RightKind, pvkValue);
    EXPECT_EQ(g.Filter(3).RightValue, "Größe ä");
    for (int i = 1; i < 4; ++i)
        EXPECT_EQ(g.Filter(i).Link, plAnd);
}

// The reader rejects what isn't "field op value"; the parser keeps the kinds as written.
TEST(SqlParser, SidesKeepTheirKindsAsWritten) {
    TVTLSQLParser p;
    p.ParseSQL("value = docname OR 'x' = name");
    const auto& g = p.WhereGroup();
    ASSERT_EQ(g.FilterCount(), 2);
    EXPECT_EQ(g.Filter(0).LeftKind, pvkFieldName);
    EXPECT_EQ(g.Filter(0).RightKind, pvkFieldName);
    EXPECT_EQ(g.Filter(1).LeftKind, pvkValue);
    EXPECT_EQ(g.Filter(1).RightKind, pvkFieldName);
    EXPECT_EQ(g.Filter(1).Link, plOr);
}

TEST(SqlParser, ListsBecomeStrictCommaTextThatSplitsBack) {
    TVTLSQLParser p;
    p.ParseSQL("ext IN ('pdf', 'a,b', 'say \"hi\"', 42, '') AND id NOT IN (7)");
    const auto& g = p.WhereGroup();
    ASSERT_EQ(g.FilterCount(), 2);
    const auto& in = g.Filter(0);
    const std::vector<std::string> items{"pdf", "a,b", "say \"hi\"", "42", ""};
    EXPECT_EQ(in.Compare, TSQLParserCompare::pcIn);
    EXPECT_EQ(in.RightValues, items);
    EXPECT_EQ(in.RightKind, pvkValue);
    EXPECT_EQ(SplitStrictCommaText(in.RightValue), items);
    EXPECT_EQ(g.Filter(1).Compare, TSQLParserCompare::pcNotIn);
    EXPECT_EQ(g.Filter(1).RightValue, "7");
}

TEST(SqlParser, InjectionLookingTextStaysOneLiteralValue) {
    TVTLSQLParser p;
    p.ParseSQL("docname = 'x''; DROP TABLE docadmindocs; --'");
    ASSERT_EQ(p.WhereGroup().FilterCount(), 1);
    EXPECT_EQ(p.WhereGroup().Filter(0).RightValue, "x'; DROP TABLE docadmindocs; --");

    p.ParseSQL("docname = 'a'' OR ''1''=''1'");
    ASSERT_EQ(p.WhereGroup().FilterCount(), 1);
    EXPECT_EQ(p.WhereGroup().Filter(0).RightValue, "a' OR '1'='1");

    // Outside quotes the same text is no where-clause at all.
    EXPECT_EQ(ErrorPosition("docname = 'x'; DROP TABLE docadmindocs"), 14);
    EXPECT_EQ(ErrorPosition("docname = 'x' -- rest"), 15);
    EXPECT_EQ(ErrorPosition("docname = 1 OR 1=1 /* c */"), 20);
}

TEST(SqlParser, SyntaxErrorsReportThePosition) {
    EXPECT_EQ(ErrorPosition("a = "), 5);  // at the end
    EXPECT_EQ(ErrorPosition("a = 1 AND"), 10);
    EXPECT_EQ(ErrorPosition("a 1"), 3);       // operator missing
    EXPECT_EQ(ErrorPosition("(a = 1"), 7);    // ')' missing
    EXPECT_EQ(ErrorPosition("a = 1)"), 6);    // ')' too many
    EXPECT_EQ(ErrorPosition("a = 'abc"), 5);  // unterminated string
    EXPECT_EQ(ErrorPosition("a IN ()"), 7);
    EXPECT_EQ(ErrorPosition("a IN (b)"), 7);  // lists hold values only
    EXPECT_EQ(ErrorPosition("a IN 1"), 6);
    EXPECT_EQ(ErrorPosition("a IN (1 2)"), 9);
    EXPECT_EQ(ErrorPosition("a NOT LIKE 'x'"), 7);
    EXPECT_EQ(ErrorPosition("a = 12abc"), 5);
    EXPECT_EQ(ErrorPosition("()"), 2);
    EXPECT_EQ(ErrorPosition("a = 1 b = 2"), 7);
    EXPECT_EQ(ErrorPosition("\"\" = 1"), 1);
}

TEST(SqlParser, EmptyTextGivesEmptyRootAndParsingReplacesTheTree) {
    TVTLSQLParser p;
    p.ParseSQL("a = 1 AND b = 2");
    EXPECT_EQ(p.WhereGroup().FilterCount(), 2);
    p.ParseSQL(" \t\n");
    EXPECT_TRUE(p.WhereGroup().IsEmpty());
    EXPECT_EQ(p.WhereGroup().Link, plNone);

    p.ParseSQL("a = 1");
    EXPECT_THROW(p.ParseSQL("a ="), ESQLParserError);
    EXPECT_TRUE(p.WhereGroup().IsEmpty());
}

TEST(SqlParser, NestingIsLimited) {
    auto nested = [](int depth) {
        return std::string(static_cast<size_t>(depth), '(') + "a=1" +
               std::string(static_cast<size_t>(depth), ')');
    };
    EXPECT_EQ(Parse(nested(TVTLSQLParser::MaxNesting)), "{a='1'}");
    EXPECT_EQ(ErrorPosition(nested(TVTLSQLParser::MaxNesting + 1)), TVTLSQLParser::MaxNesting + 1);
}

// Random expressions over boolean comparisons: the tree, read as its consumer reads it (own
// comparisons first, then bracketed subgroups, AND before OR), must give the same truth value as
// the expression itself under every assignment.
namespace {

struct Expr {
    int var = -1;  // a comparison "vN = 1" when >= 0
    bool isAnd = false;
    std::vector<Expr> kids;
};

Expr RandomExpr(std::mt19937& rng, int depth) {
    Expr e;
    if (depth == 0 || rng() % 3 == 0) {
        e.var = static_cast<int>(rng() % 5);
        return e;
    }
    e.isAnd = rng() % 2 == 0;
    const int n = 2 + static_cast<int>(rng() % 3);
    for (int i = 0; i < n; ++i)
        e.kids.push_back(RandomExpr(rng, depth - 1));
    return e;
}

std::string Render(const Expr& e, std::mt19937& rng) {
    if (e.var >= 0) return "v" + std::to_string(e.var) + " = 1";
    std::string s;
    for (size_t i = 0; i < e.kids.size(); ++i) {
        if (i) s += e.isAnd ? " AND " : " OR ";
        const Expr& k = e.kids[i];
        // Parentheses where precedence needs them, and sometimes where it doesn't.
        const bool need = k.var < 0 && (e.isAnd || rng() % 2 == 0);
        s += need ? "(" + Render(k, rng) + ")" : Render(k, rng);
    }
    return s;
}

bool Eval(const Expr& e, unsigned bits) {
    if (e.var >= 0) return (bits >> e.var) & 1u;
    bool r = e.isAnd;
    for (const auto& k : e.kids)
        r = e.isAnd ? (r && Eval(k, bits)) : (r || Eval(k, bits));
    return r;
}

// The consumer's flat sequence: items with links, brackets for linked groups.
struct Item {
    int link;
    int kind;  // 0 value, 1 open, 2 close
    bool value;
};

void Emit(const TSQLParserFilterGroup& g, unsigned bits, std::vector<Item>& out) {
    if (g.Link != plNone) out.push_back({g.Link, 1, false});
    for (const auto& f : g.Filters) {
        const int var = f.LeftValue[1] - '0';
        out.push_back({f.Link, 0, static_cast<bool>((bits >> var) & 1u)});
    }
    for (const auto& sub : g.Groups)
        Emit(sub, bits, out);
    if (g.Link != plNone) out.push_back({plAnd, 2, false});
}

// Evaluates a bracketed sequence with SQL precedence; the first link of a bracket is ignored.
bool EvalSeq(const std::vector<Item>& seq, size_t& i) {
    bool orAcc = false;
    bool andAcc = true;
    bool first = true;
    while (i < seq.size() && seq[i].kind != 2) {
        const Item it = seq[i++];
        bool v = it.value;
        if (it.kind == 1) {
            v = EvalSeq(seq, i);
            ++i;  // the close
        }
        if (!first && it.link == plOr) {
            orAcc = orAcc || andAcc;
            andAcc = v;
        } else {
            andAcc = first ? v : (andAcc && v);
        }
        first = false;
    }
    return orAcc || andAcc;
}

}  // namespace

TEST(SqlParser, TreeReadFiltersFirstKeepsTheMeaningOfRandomExpressions) {
    std::mt19937 rng(20240611);
    for (int round = 0; round < 300; ++round) {
        const Expr e = RandomExpr(rng, 4);
        const std::string text = Render(e, rng);
        TVTLSQLParser p;
        ASSERT_NO_THROW(p.ParseSQL(text)) << text;
        for (unsigned bits = 0; bits < 32; ++bits) {
            std::vector<Item> seq;
            Emit(p.WhereGroup(), bits, seq);
            size_t i = 0;
            ASSERT_EQ(EvalSeq(seq, i), Eval(e, bits)) << text << " bits " << bits;
            ASSERT_EQ(i, seq.size());
        }
    }
}
