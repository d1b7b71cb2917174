// TVTLSQLParser: a small parser for where-clause texts such as
//
//     docname LIKE 'inv%' AND (doctype IN ('pdf', 'tif') OR size >= 1000)
//
// The grammar, keywords case-insensitive:
//
//     where      := [ or-expr ]
//     or-expr    := and-expr { OR and-expr }
//     and-expr   := primary { AND primary }
//     primary    := '(' or-expr ')' | comparison
//     comparison := operand op operand
//                 | operand LIKE operand
//                 | operand [NOT] IN '(' value { ',' value } ')'
//     op         := '=' | '==' | '<>' | '!=' | '<' | '<=' | '>' | '>='
//     operand    := identifier | "quoted identifier" | value
//     value      := 'string with '' for a quote' | number
//
// AND binds tighter than OR. An identifier is a field name; a quoted string or a number is a
// value. The parser keeps what it read: it does not check that a field name stands on the left,
// since the reader of the tree decides which combinations it accepts.
//
// The result is a tree of groups. A group joins its own comparisons and its subgroups with one
// operator, so a reader may emit the comparisons first and the subgroups after them without
// changing the meaning: the root of "a = 1 OR b = 2 AND c = 3" holds the comparison a = 1 and
// one subgroup (b = 2 AND c = 3) linked by OR. Nested parentheses with the same operator merge
// into their parent. The root group has link 0; every subgroup has link 1 (AND) or 2 (OR), the
// operator of its parent. Within a group the first comparison has link 0 and each further one the
// group's operator.
//
// A parser object is used by one thread at a time. Nothing is shared between parser objects.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "_Interfaces.h"
#include "_SysUtils.h"

namespace docadmin {

// Comparison kinds, numbered as the document filters translate them into filter types.
enum class TSQLParserCompare : std::uint8_t {
    pcEqual = 0,         // =
    pcExact = 1,         // ==
    pcNotEqual = 2,      // <> or !=
    pcLess = 3,          // <
    pcLessEqual = 4,     // <=
    pcGreater = 5,       // >
    pcGreaterEqual = 6,  // >=
    pcLike = 7,          // LIKE, "%" as wildcard
    pcIn = 8,            // IN (...)
    pcNotIn = 9,         // NOT IN (...)
};

// Kind of one side of a comparison.
inline constexpr int pvkValue = 0;      // a quoted string or a number
inline constexpr int pvkFieldName = 1;  // an identifier

// Link of a comparison or group to what precedes it.
inline constexpr int plNone = 0;
inline constexpr int plAnd = 1;
inline constexpr int plOr = 2;

// A where-text that does not follow the grammar. Position is the 1-based character offset of the
// offending token (the text's length + 1 at its end).
class ESQLParserError : public Exception {
  public:
    ESQLParserError(int position, const std::string& what);
    int Position() const noexcept { return FPosition; }

  private:
    int FPosition;
};

class TSQLParserFilter {
  public:
    std::string LeftValue;
    int LeftKind = pvkFieldName;
    TSQLParserCompare Compare = TSQLParserCompare::pcEqual;
    // The value as text; for IN and NOT IN the list items as strict comma text (items with a
    // comma or a double quote are double-quoted, quotes doubled), which SplitStrictCommaText
    // splits again.
    std::string RightValue;
    int RightKind = pvkValue;
    // The right side's items: one for a plain comparison, the list for IN and NOT IN.
    std::vector<std::string> RightValues;
    int Link = plNone;
    // 1-based offset of the comparison's first token in the text.
    int Position = 0;
};

class TSQLParserFilterGroup {
  public:
    int Link = plNone;
    std::vector<TSQLParserFilter> Filters;
    std::vector<TSQLParserFilterGroup> Groups;

    int FilterCount() const { return static_cast<int>(Filters.size()); }
    const TSQLParserFilter& Filter(int i) const { return Filters.at(static_cast<size_t>(i)); }
    int GroupCount() const { return static_cast<int>(Groups.size()); }
    const TSQLParserFilterGroup& Group(int i) const { return Groups.at(static_cast<size_t>(i)); }
    bool IsEmpty() const { return Filters.empty() && Groups.empty(); }
};

class TVTLSQLParser : public TObject {
  public:
    // Parses a where-text and keeps its tree. An empty or blank text gives an empty root group.
    // On a syntax error raises ESQLParserError and leaves an empty tree.
    void ParseSQL(const std::string& AText);

    const std::string& SQLText() const { return FSQLText; }
    // The root of the parsed tree.
    const TSQLParserFilterGroup& WhereGroup() const { return FWhereGroup; }

    // Deepest nesting of parentheses accepted.
    static constexpr int MaxNesting = 128;

  private:
    std::string FSQLText;
    TSQLParserFilterGroup FWhereGroup;
};

}  // namespace docadmin
