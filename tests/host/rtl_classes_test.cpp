#include <gtest/gtest.h>

#include "_Classes.h"
#include "host/test_helpers.h"

namespace docadmin {
namespace {

TEST(TGUIDTest, ParsesFormatsAndRejects) {
    constexpr TGUID g = TGUID::Parse("{432E661E-0350-459D-8B14-460A8659FBCC}");
    EXPECT_EQ(g.D1, 0x432E661Eu);
    EXPECT_EQ(g.D4[7], 0xCC);
    EXPECT_EQ(GUIDToString(g), "{432E661E-0350-459D-8B14-460A8659FBCC}");
    EXPECT_EQ(StringToGUID("{432e661e-0350-459d-8b14-460a8659fbcc}"), g);
    EXPECT_THROW(StringToGUID("432E661E-0350-459D-8B14-460A8659FBCC"), EConvertError);
    EXPECT_THROW(StringToGUID("{432E661E-0350-459D-8B14-460A8659FBCX}"), EConvertError);
    const std::string a = CreateGUIDString(), b = CreateGUIDString();
    EXPECT_NE(a, b);
    EXPECT_EQ(StringToGUID(a), StringToGUID(a));
}

class IFirst : public IInterface {
  public:
    DOCADMIN_IID("{6E1D2C3B-0A4F-4E5D-9C8B-7A6F5E4D3C2B}");
    virtual int First() = 0;
};
class ISecond : public IInterface {
  public:
    DOCADMIN_IID("{6E1D2C3B-0A4F-4E5D-9C8B-7A6F5E4D3C2C}");
    virtual int Second() = 0;
};

struct Counted : TInterfacedImpl<IFirst, ISecond> {
    static inline int alive = 0;
    Counted() { ++alive; }
    ~Counted() override { --alive; }
    int First() override { return 1; }
    int Second() override { return 2; }
};

// One count serves every interface; each answers the others and IInterface, nothing else.
TEST(TInterfacedObjectTest, InterfacesShareOneCountAndTheLastReleaseFrees) {
    {
        IPtr<IFirst> a(new Counted);
        EXPECT_EQ(Counted::alive, 1);
        IPtr<IFirst> b = a;
        a = a;  // self-assignment keeps the object
        a.reset();
        EXPECT_EQ(Counted::alive, 1);
        IPtr<ISecond> second;
        ASSERT_TRUE(Supports(b.get(), second));
        EXPECT_EQ(second->Second(), 2);
        IPtr<IFirst> first;
        ASSERT_TRUE(Supports(second.get(), first));
        EXPECT_EQ(first.get(), b.get());
        EXPECT_EQ(first->First(), 1);
        EXPECT_TRUE(Supports<IInterface>(second.get()));
        EXPECT_EQ(static_cast<Counted*>(b.get())->RefCount(), 3);
        void* p = &p;
        EXPECT_EQ(b->QueryInterface(TGUID::Parse("{6E1D2C3B-0A4F-4E5D-9C8B-7A6F5E4D3C2D}"), &p),
                  E_NOINTERFACE);
        EXPECT_EQ(p, nullptr);
        EXPECT_EQ(static_cast<Counted*>(b.get())->RefCount(), 3);
    }
    EXPECT_EQ(Counted::alive, 0);
}

TEST(TStringListTest, StrictCommaTextKeepsCommasQuotesAndSpaces) {
    TStringList l;
    l.StrictDelimiter = true;
    l.SetDelimitedText(R"("a,b","c d",e f,"x""y")");
    ASSERT_EQ(l.Count(), 4);
    EXPECT_EQ(l[0], "a,b");
    EXPECT_EQ(l[1], "c d");
    EXPECT_EQ(l[2], "e f");
    EXPECT_EQ(l[3], "x\"y");
    EXPECT_EQ(l.DelimitedText(), R"("a,b",c d,e f,"x""y")");
    EXPECT_TRUE(SplitStrictCommaText("").empty());
    EXPECT_EQ(SplitStrictCommaText("a,").size(), 2u);
}

TEST(TStreamTest, MemoryAndFileStreamsMoveBytes) {
    TMemoryStream m;
    m.WriteBuffer("hello", 5);
    EXPECT_EQ(m.Size(), 5);
    m.SetPosition(1);
    char buf[8] = {};
    EXPECT_EQ(m.Read(buf, 8), 4);
    EXPECT_STREQ(buf, "ello");
    EXPECT_EQ(m.Read(buf, 8), 0);
    EXPECT_THROW(m.ReadBuffer(buf, 1), EReadError);

    const std::string path = ::testing::TempDir() + "rtl_stream_test.bin";
    m.SaveToFile(path);
    TMemoryStream back;
    back.LoadFromFile(path);
    EXPECT_EQ(back.DataString(), "hello");
    const std::string msg =
        test::MessageOf<EFOpenError>([&] { TFileStream missing(path + ".none", fmOpenRead); });
    EXPECT_EQ(msg.rfind("Cannot open file \"" + path + ".none\". ", 0), 0u);
}

TEST(TComponentTest, OwnerFreesOwnedAndChildLeavesOwner) {
    static int freed = 0;
    struct C : TComponent {
        using TComponent::TComponent;
        ~C() override { ++freed; }
    };
    {
        TComponent owner(nullptr);
        new C(&owner);
        auto* second = new C(&owner);
        EXPECT_EQ(owner.ComponentCount(), 2);
        delete second;
        EXPECT_EQ(owner.ComponentCount(), 1);
        EXPECT_EQ(freed, 1);
    }
    EXPECT_EQ(freed, 2);
}

TEST(TDateTimeTest, UnixRoundTripAndEpoch) {
    const double unix = 1700000000.25;
    EXPECT_NEAR(DateTimeToUnix(UnixToDateTime(unix)), unix, 1e-4);
    const TDateTime now = Now();
    EXPECT_GT(now, 45000.0);  // after 2023
    EXPECT_EQ(DateTimeToISO8601(25569.5).substr(0, 19), "1970-01-01T12:00:00");
}

}  // namespace
}  // namespace docadmin

namespace docadmin {
namespace {

TEST(SysUtilsTest, NumbersAndFlagsFromText) {
    std::int64_t n = 7;
    EXPECT_TRUE(TryStrToInt64("+42", n));
    EXPECT_EQ(n, 42);
    EXPECT_TRUE(TryStrToInt64("-9223372036854775808", n));
    for (const char* bad : {"", "+", "-", " 1", "1 ", "12a", "99999999999999999999"})
        EXPECT_FALSE(TryStrToInt64(bad, n)) << bad;
    EXPECT_TRUE(StrToBoolDef("YES", false));
    EXPECT_FALSE(StrToBoolDef("Off", true));
    EXPECT_TRUE(StrToBoolDef("2", false));
    EXPECT_FALSE(StrToBoolDef("0", true));
    EXPECT_TRUE(StrToBoolDef("maybe", true));
    EXPECT_EQ(LowerCase("AbC-Ä"), "abc-Ä");  // only ASCII letters fold
    EXPECT_EQ(UpperCase("abc"), "ABC");
}

}  // namespace
}  // namespace docadmin
