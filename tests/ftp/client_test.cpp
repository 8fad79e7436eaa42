// The client against a server of any manners.
#include "scripted.h"
#include "support/data.h"
#include "support/failures.h"
#include "support/replace.h"

using namespace cm::test;

namespace {

using cm::platform::Slice;
using cm::platform::Table;
using std::string;

constexpr char kLogIn[] = ">220 hello ; <USER u ; >230 in ; <TYPE I ; >200 ok ; ";
constexpr char kGet[] = "<PASV ; pasv ; <RETR r ; >150 go ; data:new ; >226 done";

// The text behind `what` in a script, up to the end of its step.
string after(const string &script, const string &what) {
    const size_t at = script.find(what);
    return at == script.npos ? "" : script.substr(at + what.size(), script.find(" ;", at) - at - what.size());
}

// Makes what a script says fail, and the long wait for the server's connection short.
class Failing {
public:
    explicit Failing(const string &script) : what_(after(script, "!")) {}

private:
    bool meant(const void *bytes, size_t count) const {
        return !what_.empty() && std::string_view(static_cast<const char *>(bytes), count).starts_with(what_);
    }

    const string what_;
    const Replace<&Table::socket_send> send_{[this](auto socket, auto *slices, auto count, bool more, auto *sent) {
        return meant(slices->data, slices->length) ? CM_ECONNRESET : send_.real(socket, slices, count, more, sent);
    }};
    const Replace<&Table::file_write> write_{[this](auto file, auto *data, auto count, auto *written) {
        const bool full = meant(data, count);
        const auto error = write_.real(file, data, count - full, written);
        return full ? Faults::kNoSpace : error;
    }};
    const Replace<&Table::socket_listen> listen_{[this](auto socket, auto backlog) {
        return what_ == "listen" ? CM_EADDRINUSE : listen_.real(socket, backlog);
    }};
    const Replace<&Table::path_rename> rename_{
        [this](auto *from, auto *to) { return what_ == "rename" ? CM_EACCES : rename_.real(from, to); }};
    const Replace<&Table::socket_wait> wait_{[this](auto *items, auto count, auto timeout_ms, auto *ready) {
        return wait_.real(items, count, timeout_ms > 170000 && timeout_ms <= 180000 ? 100 : timeout_ms, ready);
    }};
};

struct Ftp : testing::Test {
    Ftp() { folder.write("here", "old"); }
    ~Ftp() override { cm_ftp_disconnect(&session); }

    bool connect(const char *user = "u", const char *password = "p") {
        told.clear();
        const auto note = [](cm_context *, cm_value argument, const char *text) {
            auto &all = reinterpret_cast<Ftp *>(argument)->told;
            if (all.empty() || all.back() != text) all.push_back(text);
        };
        return cm_ftp_connect(net.lib, net.state, "127.0.0.1", user, password, reinterpret_cast<cm_value>(this), note,
                              &session) == 1;
    }
    // "cwd NAME", "mkdir NAME", "quiet NAME" (mkdir), "put LOCAL REMOTE", "get REMOTE LOCAL", local names below the
    // folder.
    bool play(const string &operation) {
        const std::vector<string> words = parts_of(operation, " ");
        const string rest = expanded(operation.substr(operation.find(' ') + 1));
        if (words[0] == "connect") return connect();
        if (words[0] == "cwd") return cm_ftp_cwd(&session, rest.c_str()) == 1;
        if (words[0] == "put") return cm_ftp_put(&session, folder.path(words[1]).c_str(), words[2].c_str()) == 1;
        if (words[0] == "get") return cm_ftp_get(&session, words[1].c_str(), folder.path(words[2]).c_str()) == 1;
        return cm_ftp_mkdir(&session, rest.c_str(), words[0] == "quiet") == 1;
    }

    // What the cache has of a local file.
    string cached(const string &path) {
        char text[16] = "";
        int32_t got = 0;
        cm_file *file = nullptr;
        EXPECT_EQ(cm_fopenc(net.lib, path.c_str(), CM_O_RDONLY | CM_O_BINARY, &file), 1);
        EXPECT_EQ(cm_fread(file, text, sizeof text, &got), 1);
        EXPECT_EQ(file->kind, 2);
        cm_fclose(file);
        return string(text, static_cast<size_t>(got));
    }

    Net net{"Network Read Timeout = 20\nFile Cache Size = 9999\nMaximum Cached File = 99\nCache Stat Interval = 999"};
    TempFolder &folder = net.lib.folder();
    cm_ftp_session session = {};
    std::vector<string> told;  // none twice in a row
};

TEST_F(Ftp, DialoguesEndAsTheyShould) {
    const std::vector<string> before = folder.names();
    for (const Row &row : rows("ftp/dialogues")) {
        SCOPED_TRACE(row.where);
        const bool logs_in = row[0] == "connect", wanted = row[1] == "1";
        ScriptedServer server((logs_in ? "" : kLogIn) + row[2]);
        {
            const Failing failing(row[2]);
            ASSERT_TRUE(logs_in || connect());
            EXPECT_EQ(play(row[0]), wanted);
            EXPECT_EQ(session.control != nullptr, !logs_in || wanted);
            EXPECT_EQ(cm_ftp_disconnect(&session), 1);
        }
        EXPECT_EQ(told, parts_of(row[3], " ; "));
        EXPECT_EQ(server.end(), "");
        const string file = row[0].substr(row[0].rfind(' ') + 1);
        if (row[0].starts_with("get")) {
            EXPECT_EQ(folder.read(file), wanted ? expanded(after(row[2], "data:")) : file == "here" ? "old" : "");
        }
        folder.write("here", "old");
        folder.remove("there");
        EXPECT_EQ(folder.names(), before) << "something was left behind";
        EXPECT_EQ(net.open(), 0);
    }
}

TEST_F(Ftp, WithoutServerOrSession) {
    cm::ftp::server_port = 1;
    EXPECT_FALSE(connect());
    cm::ftp::server_port = cm::ftp::kPort;
    for (const char *operation : {"cwd a", "mkdir a", "put here r", "get r here"}) EXPECT_FALSE(play(operation));
    EXPECT_EQ(told, std::vector<string>{"Unable to connect to FTP server: 127.0.0.1"});
}

TEST_F(Ftp, UsersAndPasswordsAreOneLine) {
    for (const auto &[user, password, script, text] : std::vector<std::array<const char *, 4>>{
             {"a\nDELE b", "p", ">220 hi", "FTP USER command failed."},
             {"u", "a\rb", ">220 hi ; <USER u ; >331 go", "FTP PASS command failed."},
             {"", "", ">220 hi ; <USER  ; >331 go ; <PASS  ; >230 in ; <TYPE I ; >200 ok", ""}}) {
        ScriptedServer server(script);
        EXPECT_EQ(connect(user, password), *text == '\0');
        EXPECT_EQ(told, parts_of(text, " ; "));
        EXPECT_EQ(cm_ftp_disconnect(&session), 1);
        EXPECT_EQ(server.end(), "");
    }
}

TEST_F(Ftp, AddressesThatAServerNames) {
    for (const Row &row : rows("ftp/addresses")) {
        cm::ftp::Address address = {};
        if (!cm::ftp::parse_address(row.text(0), &address)) {
            EXPECT_EQ(row[1], "-") << row.where;
            continue;
        }
        const auto &host = address.host;
        const string dotted = std::to_string(host[0]) + '.' + std::to_string(host[1]) + '.' + std::to_string(host[2]) +
                              '.' + std::to_string(host[3]);
        EXPECT_EQ(dotted + ':' + std::to_string(address.port), row[1]) << row.where;
        EXPECT_EQ(cm::ftp::may_name(address_of("8.8.8.8"), address), row[2] == "yes") << row.where;
        EXPECT_TRUE(cm::ftp::may_name(address_of("192.168.0.1"), address)) << row.where;
    }
    ScriptedServer server(string(kLogIn) + "<PASV ; pasv");
    ASSERT_TRUE(connect());
    session.control->peer_addr = address_of("8.8.8.8");
    EXPECT_FALSE(play("get r here"));
    EXPECT_EQ(told, std::vector<string>{"PASV: Unable to connect to FTP server."});
    EXPECT_EQ(cm_ftp_disconnect(&session), 1);
    EXPECT_EQ(server.end(), "");
}

// What a rename would break is written in place, a replaced file keeps who may read it, the cache hears of it.
TEST_F(Ftp, LocalFilesKeepWhatTheyAre) {
    const string here = folder.path("here"), first = folder.write("first", "old"), second = folder.path("second");
    ASSERT_EQ(os.path_link(first.c_str(), second.c_str()), 0);
    ASSERT_EQ(os.path_set_mode(here.c_str(), 0600), 0);
    cm::platform::FileStatus before, after;
    ASSERT_EQ(os.path_status(here.c_str(), false, &before), 0);
    ScriptedServer server(string(kLogIn) + kGet + " ; " + kGet);
    EXPECT_EQ(cached(here), "old");
    ASSERT_TRUE(connect() && play("get r first") && play("get r here"));
    EXPECT_EQ(cached(here), "new");
    ASSERT_EQ(os.path_status(here.c_str(), false, &after), 0);
    EXPECT_EQ(before.mode, after.mode);
    EXPECT_EQ(folder.read("second") + folder.read("here"), "newnew");
}

TEST_F(Ftp, EveryFailureLeavesTheOldFileOrTheWholeNewOne) {
    std::unique_ptr<ScriptedServer> server;
    bool got = false;
    each_failure(
        Faults::kAllocations | Faults::kFiles | Faults::kSockets | Faults::kClock,
        [&] {
            server = std::make_unique<ScriptedServer>(string(kLogIn) + kGet);
            got = connect() && play("get r here");
            cm_ftp_disconnect(&session);
        },
        [&](bool injected) {
            server.reset();
            EXPECT_TRUE(got || injected);
            EXPECT_EQ(folder.read("here"), got ? "new" : "old");
            EXPECT_EQ(net.open(), 0);
            folder.write("here", "old");
        });
}

}  // namespace
