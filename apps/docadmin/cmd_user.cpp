// docadmin user ...: users, ACL groups and modes, for an administrator.
//
//   user add NAME [--password-stdin | --no-password] [--read-only] [--admin] [--group G]
//   user list
//   user passwd NAME [--password-stdin]
//   user rename NAME NEWNAME
//   user group-add NAME [--description TEXT]
//   user groups
//   user mode NAME GROUP MODE      (MODE: full, read, readwrite, denied or none)
//
// Passwords come from the first line of standard input with --password-stdin, or are asked for
// twice on the terminal without echo; the user store refuses short and blank ones. Names and
// texts from the database are listed through VisibleText, so that no control character reaches
// the terminal.
#include <termios.h>
#include <unistd.h>

#include <iostream>

#include "_Tools.h"
#include "commands.h"
#include "host_options.h"
#include "user_lookup.h"

namespace docadmin::app {
namespace {

std::string ReadLine(std::istream& in) {
    std::string line;
    if (!std::getline(in, line)) throw Exception("No password on standard input");
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

std::string AskHidden(const char* prompt) {
    std::cerr << prompt << std::flush;
    termios old{};
    const bool tty = tcgetattr(STDIN_FILENO, &old) == 0;
    if (tty) {
        termios quiet = old;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    std::string line;
    const bool ok = static_cast<bool>(std::getline(std::cin, line));
    if (tty) tcsetattr(STDIN_FILENO, TCSANOW, &old);
    std::cerr << "\n";
    if (!ok) throw Exception("No password given");
    return line;
}

// A password that the store accepts; refused ones raise EUserStoreError.
std::string ReadPassword(const TUserStore& users, bool fromStdin) {
    std::string password;
    if (fromStdin) {
        password = ReadLine(std::cin);
    } else {
        if (!isatty(STDIN_FILENO))
            throw Exception("No terminal to ask for a password: use --password-stdin");
        password = AskHidden("New password: ");
        users.CheckPassword(password);  // before asking again
        if (AskHidden("Repeat password: ") != password) throw Exception("The passwords differ");
    }
    users.CheckPassword(password);
    return password;
}

TUserInfo RequireUser(TUserStore& users, const std::string& name) {
    const auto u = users.FindUser(name);
    if (!u) throw Exception("User " + PrintableText(name) + " does not exist");
    return *u;
}

struct UserOptions {
    HostOptions Host;
    std::string Name;
    std::string NewName;
    std::string Group;
    std::string FullName;
    std::string Description;
    std::string Mode;
    bool PasswordStdin = false;
    bool NoPassword = false;
    bool ReadOnly = false;
    bool Admin = false;
};

void Install(CLI::App& app) {
    auto o = std::make_shared<UserOptions>();
    CLI::App* user = app.add_subcommand("user", "Users, ACL groups and their modes");
    user->require_subcommand(1);

    CLI::App* add = user->add_subcommand("add", "Add a user");
    AddHostOptions(add, o->Host);
    add->add_option("NAME", o->Name, "user name")->required();
    auto* pwStdin = add->add_flag("--password-stdin", o->PasswordStdin,
                                  "read the password from the first line of standard input");
    add->add_flag("--no-password", o->NoPassword, "no password: the user cannot log in")
        ->excludes(pwStdin);
    add->add_flag("--read-only", o->ReadOnly, "the user may read but not change");
    add->add_flag("--admin", o->Admin, "the user has full rights in every ACL group");
    add->add_option("--group", o->Group, "default ACL group (id or name)");
    add->add_option("--full-name", o->FullName, "the user's full name");
    add->callback([o] {
        auto host = OpenHost(o->Host);
        TUserStore& users = host->Users();
        TUserInfo u;
        u.UserName = o->Name;
        u.FullName = o->FullName;
        u.ReadOnly = o->ReadOnly;
        u.Admin = o->Admin;
        if (!o->Group.empty()) u.DefaultACLGroup = ResolveGroup(users, o->Group);
        // Name checks before the password is asked for.
        u.UserName = TUserStore::CheckUserName(o->Name);
        if (const auto other = users.FindUser(u.UserName))
            throw Exception("User " + PrintableText(other->UserName) + " exists");
        std::optional<std::string> password;
        if (!o->NoPassword) password = ReadPassword(users, o->PasswordStdin);
        const std::int64_t id = users.AddUser(u, password);
        std::cout << "added user " << PrintableText(u.UserName) << " (id " << id << ")\n";
    });

    CLI::App* list = user->add_subcommand("list", "List the users");
    AddHostOptions(list, o->Host);
    list->callback([o] {
        auto host = OpenHost(o->Host);
        std::cout << "id\tname\tflags\tgroup\tfull name\n";
        for (const TUserInfo& u : host->Users().ListUsers()) {
            std::string flags;
            auto flag = [&flags](bool on, const char* word) {
                if (!on) return;
                if (!flags.empty()) flags += ",";
                flags += word;
            };
            flag(u.Admin, "admin");
            flag(u.ReadOnly, "read-only");
            flag(u.Disabled, "disabled");
            flag(!u.HasPassword, "no-password");
            std::cout << u.ID << "\t" << PrintableText(u.UserName) << "\t"
                      << (flags.empty() ? "-" : flags) << "\t" << u.DefaultACLGroup << "\t"
                      << PrintableText(u.FullName) << "\n";
        }
        // Names from before names compared without case and spaces: each must be renamed.
        for (const auto& same : host->Users().DuplicateUserNames()) {
            std::cerr << "warning: these user names differ only in case or spaces:";
            for (const TUserInfo& u : same)
                std::cerr << " \"" << PrintableText(u.UserName) << "\" (id " << u.ID << ")";
            std::cerr << "; rename all but one with 'docadmin user rename'\n";
        }
    });

    CLI::App* passwd = user->add_subcommand("passwd", "Set a user's password");
    AddHostOptions(passwd, o->Host);
    passwd->add_option("NAME", o->Name, "user name")->required();
    passwd->add_flag("--password-stdin", o->PasswordStdin,
                     "read the password from the first line of standard input");
    passwd->callback([o] {
        auto host = OpenHost(o->Host);
        const TUserInfo u = RequireUser(host->Users(), o->Name);
        host->Users().SetPassword(o->Name, ReadPassword(host->Users(), o->PasswordStdin));
        std::cout << "password of " << PrintableText(u.UserName) << " changed\n";
    });

    CLI::App* rename = user->add_subcommand("rename", "Give a user another name");
    AddHostOptions(rename, o->Host);
    rename->add_option("NAME", o->Name, "user name")->required();
    rename->add_option("NEWNAME", o->NewName, "the new name")->required();
    rename->callback([o] {
        auto host = OpenHost(o->Host);
        const TUserInfo u = RequireUser(host->Users(), o->Name);
        host->Users().RenameUser(o->Name, o->NewName);
        std::cout << "renamed user " << PrintableText(u.UserName) << " (id " << u.ID << ") to "
                  << PrintableText(host->Users().GetUser(u.ID)->UserName) << "\n";
    });

    CLI::App* groupAdd = user->add_subcommand("group-add", "Add an ACL group");
    AddHostOptions(groupAdd, o->Host);
    groupAdd->add_option("NAME", o->Name, "group name")->required();
    groupAdd->add_option("--description", o->Description, "what the group is for");
    groupAdd->callback([o] {
        auto host = OpenHost(o->Host);
        const std::int64_t id = host->Users().AddACLGroup(o->Name, o->Description);
        std::cout << "added ACL group " << PrintableText(o->Name) << " (id " << id << ")\n";
    });

    CLI::App* groups = user->add_subcommand("groups", "List the ACL groups");
    AddHostOptions(groups, o->Host);
    groups->callback([o] {
        auto host = OpenHost(o->Host);
        std::cout << "id\tname\tdescription\n";
        for (const TACLGroupInfo& g : host->Users().ListACLGroups())
            std::cout << g.ID << "\t" << PrintableText(g.Name) << "\t"
                      << PrintableText(g.Description) << "\n";
    });

    CLI::App* mode = user->add_subcommand("mode", "Set a user's mode in an ACL group");
    AddHostOptions(mode, o->Host);
    mode->add_option("NAME", o->Name, "user name")->required();
    mode->add_option("GROUP", o->Group, "ACL group (id or name)")->required();
    mode->add_option("MODE", o->Mode, "full, read, readwrite, denied, or none to remove")
        ->required()
        ->check(CLI::IsMember({"full", "read", "readwrite", "denied", "none"}));
    mode->callback([o] {
        auto host = OpenHost(o->Host);
        TUserStore& users = host->Users();
        const TUserInfo u = RequireUser(users, o->Name);
        const std::int64_t g = ResolveGroup(users, o->Group);
        if (o->Mode == "none") {
            users.RemoveUserACLMode(u.ID, g);
        } else {
            const TUserACLMode m = o->Mode == "full"        ? uamFull
                                   : o->Mode == "read"      ? uamReadOnly
                                   : o->Mode == "readwrite" ? uamReadWrite
                                                            : uamDenied;
            users.SetUserACLMode(u.ID, g, m);
        }
        std::cout << "mode of " << PrintableText(u.UserName) << " in group "
                  << PrintableText(o->Group) << ": " << o->Mode << "\n";
    });
}

CommandRegistrar reg(Install);

}  // namespace
}  // namespace docadmin::app
