// Tool functions of the host: versions, paths, text and the small containers.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "_JsonText.h"
#include "_Tools.h"

namespace docadmin {
namespace {

namespace fs = std::filesystem;

TEST(FileVersionTest, ParsesPrintsComparesAndIncrements) {
    EXPECT_EQ(FileVersionToStr(verFIRST), "1.0.0.0");
    EXPECT_EQ(StrToFileVersion("2.5.1.9"), (TFileVersion{2, 5, 1, 9}));
    EXPECT_EQ(StrToFileVersion("3.1"), (TFileVersion{3, 1, 0, 0}));
    EXPECT_EQ(StrToFileVersion("1.2.3.4", 2), (TFileVersion{1, 2, 0, 0}));
    EXPECT_EQ(StrToFileVersion("1.x"), verNULL);
    EXPECT_EQ(StrToFileVersion("70000.1"), verNULL);
    EXPECT_EQ(StrToFileVersion("", verFIRST), verFIRST);
    EXPECT_EQ(CompareFileVersion({1, 2, 0, 0}, {1, 10, 0, 0}), -1);
    EXPECT_EQ(CompareFileVersion({2, 0, 0, 0}, {1, 9, 9, 9}), 1);
    EXPECT_EQ(CompareFileVersion(verNULL, verNULL), 0);
    EXPECT_TRUE(IsSameFileVersion(StrToFileVersion(FileVersionToStr({4, 3, 2, 1})), {4, 3, 2, 1}));
    EXPECT_EQ(verFIRST.Increment(), (TFileVersion{1, 0, 0, 1}));
    EXPECT_EQ((TFileVersion{1, 0, 0xFFFF, 0xFFFF}.Increment()), (TFileVersion{1, 1, 0, 0}));
    EXPECT_EQ(GetFileVersion("/bin/sh"), verNULL);
}

TEST(ToolsTest, PathsAndNames) {
    EXPECT_EQ(ExtractDirName("/a/b/c/"), "c");
    EXPECT_EQ(ExtractDirName("/a/b/c"), "c");
    EXPECT_EQ(ExtractFileExt("a.b/c"), "");
    EXPECT_EQ(ExtractFileExt("x.tar.gz"), ".gz");
    EXPECT_EQ(IncludeTrailingDirSeparator("/a"), "/a/");
    EXPECT_EQ(IncludeTrailingDirSeparator("/a/"), "/a/");
    EXPECT_EQ(ConvertToFileName("a/b:c*?\"<>|\t.txt", false, 260), "a_b_c_______.txt");
    EXPECT_EQ(ConvertToFileName("a/b", true, 0), "a/b");
    // Shortened before the extension, and never inside a UTF-8 sequence.
    EXPECT_EQ(ConvertToFileName("abcdefgh.txt", false, 8), "abcd.txt");
    EXPECT_EQ(ConvertToFileName("a\xC3\xA4\xC3\xA4.txt", false, 7), "a\xC3\xA4.txt");
    EXPECT_TRUE(IsGuid("{432E661E-0350-459D-8B14-460A8659FBCC}"));
    EXPECT_TRUE(IsGuid(EmptyUID));
    EXPECT_FALSE(IsGuid("{432E661E-0350-459D-8B14-460A8659FBCX}"));
    EXPECT_FALSE(IsGuid("432E661E-0350-459D-8B14-460A8659FBCC"));
}

TEST(ToolsTest, StrLikeMatchesWildcardsIgnoringCase) {
    EXPECT_TRUE(StrLike("Report.PDF", "*.pdf"));
    EXPECT_TRUE(StrLike("abc", "a?c"));
    EXPECT_TRUE(StrLike("aXbXc", "a*b*c"));
    EXPECT_TRUE(StrLike("", "*"));
    EXPECT_FALSE(StrLike("abc", "a?"));
    EXPECT_FALSE(StrLike("ab", "a*c"));
    EXPECT_TRUE(StrLike("mississippi", "*sip*"));
}

TEST(ToolsTest, TextConversions) {
    TMemoryStream s;
    s.WriteBuffer("hello world", 11);
    s.SetPosition(0);
    EXPECT_EQ(MIMEEncodeRawByteStr(s, 0), "");
    EXPECT_EQ(s.Position(), 0);
    EXPECT_EQ(MIMEEncodeRawByteStr(s, 5), "aGVsbG8=");
    EXPECT_EQ(s.Position(), 5);
    EXPECT_EQ(MIMEEncodeRawByteStr(s, -1), "IHdvcmxk");
    EXPECT_EQ(MIMEEncodeRawByteStr(s, 100), "");  // at the end, whatever the count
    EXPECT_EQ(MIMEDecodeRawByteStr("aGVs\r\nbG8="), "hello");
    EXPECT_EQ(HexToBin("00fFa1"), std::string("\x00\xff\xa1", 3));
    EXPECT_THROW(HexToBin("abc"), EConvertError);
    EXPECT_THROW(HexToBin("zz"), EConvertError);
    EXPECT_EQ(FastReplace("aXbxc", "x", "--", false), "aXb--c");
    EXPECT_EQ(FastReplace("aXbxc", "x", "", true), "abc");
    EXPECT_EQ(FastReplace("aaa", "aa", "b", false), "ba");
}

TEST(ToolsTest, SortedIntegerListKeepsOrderWithoutDuplicates) {
    TSortedIntegerList l;
    l.Add(5);
    l.Add(-1);
    l.Add(3);
    EXPECT_EQ(l.Add(5), 2);
    EXPECT_EQ(l.GetAsCommaText(), "-1,3,5");
    EXPECT_EQ(l.IndexOf(3), 1);
    EXPECT_EQ(l.IndexOf(4), -1);
    IPtr<IIntegerListData> data(new TIntegerListData(new TSortedIntegerList));
    data->Get_List()->Add(9);
    EXPECT_EQ(data->Get_List()->Count(), 1);
    TCriticalSection cs;
    cs.Enter();
    cs.Enter();  // the owner may enter again
    cs.Leave();
    cs.Leave();
}

TEST(ToolsTest, FilesDatesListsAndTemporaryFiles) {
    const std::string dir = GetTempPath() + "rtl_tools_" + CreateGUIDString().substr(1, 8);
    ASSERT_TRUE(ForceDirectories(dir + "/x/y"));
    SaveStrToFile(dir + "/b.txt", "12", false);
    SaveStrToFile(dir + "/b.txt", "345", true);
    SaveStrToFile(dir + "/a.dat", "", false);
    EXPECT_EQ(GetFileSize(dir + "/b.txt"), 5);
    EXPECT_EQ(GetFileSize(dir + "/none"), -1);

    const TDateTime when = 45000.5;  // 2023-03-15 12:00 local
    ASSERT_TRUE(SetFileDateTime(dir + "/b.txt", when, when, when));
    EXPECT_NEAR(GetFileDate(dir + "/b.txt"), when, 1e-6);

    TStringList all, txt;
    GetFileList(dir + "/*", all);
    EXPECT_EQ(all.Items(), (std::vector<std::string>{".", "..", "a.dat", "b.txt", "x"}));
    GetFileList(dir + "/*.TXT", txt, 1, true);
    EXPECT_EQ(txt.Items(), (std::vector<std::string>{dir + "/b.txt"}));

    EXPECT_EQ(GetNewTempFileName(dir, "b.txt", false), dir + "/b_2.txt");
    EXPECT_EQ(GetNewTempFileName(dir, "c.txt", true), dir + "/c.txt");
    EXPECT_TRUE(fs::exists(dir + "/c.txt"));
    const std::string t1 = GetTempFileName(), t2 = GetTempFileName();
    EXPECT_NE(t1, t2);
    EXPECT_EQ(t1.find('/'), std::string::npos);

    std::string name;
    {
        TTempFileStream tmp(dir + "/t.tmp");
        tmp.WriteBuffer("abc", 3);
        name = tmp.FileName();
        tmp.CloseFileHandle();
        EXPECT_EQ(GetFileSize(name), 3);
    }
    EXPECT_FALSE(fs::exists(name));
    // With a trash folder the file goes there; without one it is deleted.
    ::setenv("XDG_DATA_HOME", (dir + "/data").c_str(), 1);
    EXPECT_TRUE(FileMoveToRecycle(dir + "/c.txt"));
    EXPECT_FALSE(fs::exists(dir + "/c.txt"));
    ASSERT_TRUE(ForceDirectories(dir + "/data/Trash/files"));
    EXPECT_TRUE(FileMoveToRecycle(dir + "/b.txt"));
    EXPECT_FALSE(fs::exists(dir + "/b.txt"));
    EXPECT_EQ(GetFileSize(dir + "/data/Trash/files/b.txt"), 5);
    ::unsetenv("XDG_DATA_HOME");
    fs::remove_all(dir);
}

TEST(ToolsTest, JsonTextCheckAgreesWithAFullParser) {
    // Each case is also given to nlohmann's parser, which must agree.
    const std::vector<std::string> valid = {
        "{}", " [ ] ", R"({"a":[1,-0.5e+3,true,false,null,"x\u00e9\ud83d\ude00"],"b":{}})",
        "\"caf\xC3\xA9\"", "0"};
    // clang-format off
    const std::vector<std::string> invalid = {
        "", " ", "{", "[1,]", R"({"a" 1})", R"({"a":1,})", "[1 2]", "{} {}", "01", "1.", "-",
        "1e", "tru", "[nul]", R"("\x")", R"("\u12")", R"("\udc00")", R"("\ud800x")",
        R"("\ud800\u0041")", "\"a\tb\"", "\"\xC3\"", "\"\xED\xA0\x80\"", "[}", "{]", "\"open"};
    // clang-format on
    for (const auto* list : {&valid, &invalid})
        for (const std::string& text : *list) {
            EXPECT_EQ(IsValidJsonText(text), list == &valid) << text;
            EXPECT_EQ(nlohmann::json::accept(text), list == &valid) << "reference parser: " << text;
        }
    // Deep nesting is a loop, not recursion.
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_TRUE(IsValidJsonText(deep));
    EXPECT_FALSE(IsValidJsonText(deep + "]"));
}

}  // namespace
}  // namespace docadmin
