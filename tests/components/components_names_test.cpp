// Names between the disk and the tree: the lossless escape of bytes that aren't UTF-8, names for
// a terminal, names that can't leave their folder, and folder paths typed by a user.
#include <random>

#include "components_fixtures.h"

namespace docadmin::test {
namespace {

TEST(NameEscape, MapsBothWays) {
    const std::pair<std::string, std::string> cases[] = {
        // {on disk, in the tree}
        {"plain.txt", "plain.txt"},
        {"caf\xC3\xA9 \xF0\x9F\x93\x84.txt", "caf\xC3\xA9 \xF0\x9F\x93\x84.txt"},
        {"report%20final%e9%", "report%20final%e9%"},  // no escape: kept
        {"\xFF.txt", "%FF.txt"},
        {"a\xC3", "a%C3"},
        {"\xED\xA0\x80", "%ED%A0%80"},  // a surrogate isn't UTF-8
        {"\xC0\xAF", "%C0%AF"},         // nor is an overlong '/'
        {"%FF and %25", "%25FF and %2525"},
        {"\xE9%E9", "%E9%25E9"}};
    for (const auto& [bytes, text] : cases) {
        SCOPED_TRACE(PrintableText(bytes));
        EXPECT_EQ(NameFromFileSystem(bytes), text);
        EXPECT_EQ(NameToFileSystem(text), bytes);
        EXPECT_TRUE(IsValidUtf8(text));
    }
}

TEST(NameEscape, EveryByteStringComesBack) {
    std::mt19937 rng(42);
    const std::string alphabet = "%25AF9Ex.\x80\xC3\xA9\xE2\x82\xAC\xFF";
    for (int i = 0; i < 20000; ++i) {
        std::string s(rng() % 12, ' ');
        for (char& c : s)
            c = alphabet[rng() % alphabet.size()];
        const std::string text = NameFromFileSystem(s);
        ASSERT_TRUE(IsValidUtf8(text)) << text;
        ASSERT_EQ(NameToFileSystem(text), s) << text;
    }
}

TEST(NameEscape, TerminalTextAndSafeNames) {
    EXPECT_EQ(PrintableText("a\nb\x1B[2J\x7F\xC2\x9B\xFF\xC3\xA9"),
              "a\\x0Ab\\x1B[2J\\x7F\\u009B\\xFF\xC3\xA9");
    const std::vector<std::pair<std::string, std::string>> safe = {
        {"", "_"},
        {".", "_."},
        {"..", "_.."},
        {"...", "..."},
        {"../../etc/passwd", ".._.._etc_passwd"},
        {"a\\b", "a_b"},
        {"%FF.txt", "\xFF.txt"},
        {"%2E%2E", "%2E%2E"}};  // only bytes 80-FF come back from an escape
    for (const auto& [name, onDisk] : safe)
        EXPECT_EQ(SafeFileName(name), onDisk) << name;
    EXPECT_EQ(SafeFileName(std::string(300, 'x') + ".txt").size(), 255u);
}

TEST(FolderPath, UserPathsAreCheckedAndInternalSplittingStaysLenient) {
    EXPECT_EQ(TBaseDocAdmin::ParseFolderPath("\"a, b\",c,\"say \"\"hi\"\"\""),
              (std::vector<std::string>{"a, b", "c", "say \"hi\""}));
    EXPECT_TRUE(TBaseDocAdmin::ParseFolderPath("").empty());
    for (const char* malformed : {"\"abc", "\"a\"b", "a\"b", "\"a\" ,b"})
        EXPECT_THROW(TBaseDocAdmin::ParseFolderPath(malformed), EConvertError) << malformed;
    for (const char* refused :
         {",,,", "a,", "\"\"", "\"..\",x", "a,.", "\"a/b\"", "a\\b", "\"a\tb\"", "\xFF"})
        EXPECT_THROW(TBaseDocAdmin::ParseFolderPath(refused), EDocAdminException) << refused;
    // The data layer's own splitting keeps its lenient reading.
    EXPECT_EQ(SplitStrictCommaText(",,"), (std::vector<std::string>{"", "", ""}));
}

}  // namespace
}  // namespace docadmin::test
