#include "_Dialogs.h"

#include <cctype>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <string>

#include <unistd.h>

namespace docadmin {

namespace {

std::mutex gAnswererLock;
TMessageDlgAnswerer gAnswerer;  // guarded by gAnswererLock

struct TButtonText {
    TMsgDlgBtn Button;
    char Key;
    const char* Caption;
    int Result;
};

constexpr TButtonText kButtons[] = {
    {mbYes, 'y', "[y]es", mrYes},
    {mbNo, 'n', "[n]o", mrNo},
    {mbOK, 'o', "[o]k", mrOk},
    {mbCancel, 'c', "[c]ancel", mrCancel},
    {mbAbort, 'a', "[a]bort", mrAbort},
    {mbRetry, 'r', "[r]etry", mrRetry},
    {mbIgnore, 'i', "[i]gnore", mrIgnore},
    {mbClose, 'l', "c[l]ose", mrClose},
};

const char* TypeCaption(TMsgDlgType AType) {
    switch (AType) {
        case mtWarning:
            return "Warning";
        case mtError:
            return "Error";
        case mtInformation:
            return "Information";
        case mtConfirmation:
            return "Confirm";
        default:
            return "Message";
    }
}

}  // namespace

TMessageDlgAnswerer SetMessageDlgAnswerer(TMessageDlgAnswerer AAnswerer) {
    std::lock_guard lock(gAnswererLock);
    std::swap(gAnswerer, AAnswerer);
    return AAnswerer;
}

int MessageDlg(const std::string& AMsg, TMsgDlgType ADlgType, TMsgDlgButtons AButtons,
               int /*AHelpCtx*/) {
    if (!IsMainThread()) return mrAbort;
    TMessageDlgAnswerer answerer;
    {
        std::lock_guard lock(gAnswererLock);
        answerer = gAnswerer;
    }
    return answerer ? answerer(AMsg, ADlgType, AButtons) : mrAbort;
}

int TerminalMessageDlgAnswerer(const std::string& AMsg, TMsgDlgType ADlgType,
                               TMsgDlgButtons AButtons) {
    if (!::isatty(STDIN_FILENO) || !::isatty(STDERR_FILENO)) return mrAbort;
    std::string prompt;
    for (const TButtonText& b : kButtons)
        if (AButtons & (1u << b.Button))
            prompt += (prompt.empty() ? "" : ", ") + std::string(b.Caption);
    if (prompt.empty()) return mrAbort;
    for (;;) {
        std::cerr << TypeCaption(ADlgType) << ": " << AMsg << "\n" << prompt << "? " << std::flush;
        std::string line;
        if (!std::getline(std::cin, line)) return mrAbort;
        const std::string::size_type pos = line.find_first_not_of(" \t");
        if (pos == std::string::npos) continue;
        const char key = static_cast<char>(std::tolower(static_cast<unsigned char>(line[pos])));
        for (const TButtonText& b : kButtons)
            if ((AButtons & (1u << b.Button)) && b.Key == key) return b.Result;
    }
}

}  // namespace docadmin
