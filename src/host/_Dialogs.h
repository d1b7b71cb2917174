// The host's message dialog and its notion of the main thread.
//
// This build opens no window. MessageDlg hands the question to an answerer that the program
// installs: the command-line program installs TerminalMessageDlgAnswerer, which asks the person
// on the controlling terminal. Without an answerer, without a terminal, and on any thread other
// than the main one the answer is mrAbort, so that a server thread stops at once instead of
// waiting for somebody who isn't there.
//
// MainThreadID is the thread that initialised the program's static data, which is the thread
// that runs main(). An answerer is called on the main thread only; installing one is safe from
// any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <thread>

namespace docadmin {

enum TMsgDlgType : std::uint8_t { mtWarning, mtError, mtInformation, mtConfirmation, mtCustom };

enum TMsgDlgBtn : std::uint8_t {
    mbYes,
    mbNo,
    mbOK,
    mbCancel,
    mbAbort,
    mbRetry,
    mbIgnore,
    mbAll,
    mbNoToAll,
    mbYesToAll,
    mbHelp,
    mbClose
};

// A set of buttons, bit n for TMsgDlgBtn n.
using TMsgDlgButtons = std::uint16_t;
constexpr TMsgDlgButtons MsgDlgButtons(std::initializer_list<TMsgDlgBtn> AButtons) {
    TMsgDlgButtons r = 0;
    for (TMsgDlgBtn b : AButtons)
        r = static_cast<TMsgDlgButtons>(r | (1u << b));
    return r;
}

// Modal results.
inline constexpr int mrNone = 0;
inline constexpr int mrOk = 1;
inline constexpr int mrCancel = 2;
inline constexpr int mrAbort = 3;
inline constexpr int mrRetry = 4;
inline constexpr int mrIgnore = 5;
inline constexpr int mrYes = 6;
inline constexpr int mrNo = 7;
inline constexpr int mrClose = 8;

// Answers a dialog with one of the modal results of the offered buttons.
using TMessageDlgAnswerer =
    std::function<int(const std::string& AMsg, TMsgDlgType ADlgType, TMsgDlgButtons AButtons)>;

inline const std::thread::id MainThreadID = std::this_thread::get_id();
inline bool IsMainThread() {
    return std::this_thread::get_id() == MainThreadID;
}

// Installs the answerer (an empty one: every dialog answers mrAbort); answers the previous one.
TMessageDlgAnswerer SetMessageDlgAnswerer(TMessageDlgAnswerer AAnswerer);

// Shows a message with buttons and answers the modal result; mrAbort off the main thread or
// without an answerer.
int MessageDlg(const std::string& AMsg, TMsgDlgType ADlgType, TMsgDlgButtons AButtons,
               int AHelpCtx = 0);

// Asks on the controlling terminal (the message on stderr, one letter per button read from
// stdin) until a valid answer comes; mrAbort when stdin or stderr is no terminal, or at the end
// of input.
int TerminalMessageDlgAnswerer(const std::string& AMsg, TMsgDlgType ADlgType,
                               TMsgDlgButtons AButtons);

}  // namespace docadmin
