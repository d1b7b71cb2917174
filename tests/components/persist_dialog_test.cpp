// The host's message dialog: who answers, and that only the main thread may ask.
#include <gtest/gtest.h>

#include <thread>

#include "_Dialogs.h"

namespace docadmin {
namespace {

TEST(MessageDlgTest, AnswererOnTheMainThreadOnlyAndAbortOtherwise) {
    ASSERT_TRUE(IsMainThread());
    const TMsgDlgButtons buttons = MsgDlgButtons({mbAbort, mbRetry, mbIgnore});
    TMessageDlgAnswerer previous = SetMessageDlgAnswerer(nullptr);
    EXPECT_EQ(MessageDlg("m", mtError, buttons), mrAbort);

    int calls = 0;
    TMsgDlgButtons seen = 0;
    SetMessageDlgAnswerer([&](const std::string& msg, TMsgDlgType type, TMsgDlgButtons b) {
        ++calls;
        seen = b;
        EXPECT_EQ(msg, "upload failed");
        EXPECT_EQ(type, mtError);
        return mrIgnore;
    });
    EXPECT_EQ(MessageDlg("upload failed", mtError, buttons), mrIgnore);
    EXPECT_EQ(seen, (1u << mbAbort) | (1u << mbRetry) | (1u << mbIgnore));
    int other = mrNone;
    std::thread worker([&] {
        EXPECT_FALSE(IsMainThread());
        other = MessageDlg("upload failed", mtError, buttons);
    });
    worker.join();
    EXPECT_EQ(other, mrAbort);
    EXPECT_EQ(calls, 1);
    SetMessageDlgAnswerer(previous);
}

}  // namespace
}  // namespace docadmin
