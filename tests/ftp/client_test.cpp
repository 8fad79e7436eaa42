// The client against a server of any manners.
#include "network/net.h"
#include "support/scenario.h"
#include "wire.h"

using namespace cm::test;

namespace {

using std::string;

constexpr char kLogIn[] = ">220 hello ; <USER u ; >230 in ; <TYPE I ; >200 ok ; ";
constexpr char kGet[] = "<PASV ; pasv ; <RETR r ; >150 go ; data:new ; >226 done";

struct Ftp : testing::Test {
    Ftp() { folder.write("here", "old"); }

    // "connect [USER PASSWORD]", "cwd NAME", "mkdir NAME", "quiet NAME" (mkdir), "put LOCAL REMOTE", "get REMOTE LOCAL"
    // and "far ..." (get from a server on the public net); local names are below the folder.
    bool play(const string &operation) {
        const Words words(operation == "connect" ? "connect u p" : operation);
        const char *const one = words.text(1), *const two = words.text(2);
        if (words[0] == "connect") {
            told.clear();
            const auto note = [](cm_context *, cm_value argument, const char *text) {
                auto &all = reinterpret_cast<Ftp *>(argument)->told;
                if (!all.ends_with(text)) all += (all.empty() ? "" : " ; ") + string(text);
            };
            return cm_ftp_connect(net.lib, net.state, "127.0.0.1", one, two, CM_OUT(this), note, &session) == 1;
        }
        if (words[0] == "cwd") return cm_ftp_cwd(&session, one) == 1;
        if (words[0] == "put") return cm_ftp_put(&session, folder.path(one).c_str(), two) == 1;
        if (words[0] != "get" && words[0] != "far") return cm_ftp_mkdir(&session, one, words[0] == "quiet") == 1;
        if (words[0] == "far") session.control->peer_addr = address_of("8.8.8.8");
        return cm_ftp_get(&session, one, folder.path(two).c_str()) == 1;
    }
    // What the cache has of a local file.
    string cached(const string &path) {
        char text[16] = "";
        int32_t got = 0;
        cm_file *file = nullptr;
        EXPECT_TRUE(cm_fopenc(net.lib, path.c_str(), CM_O_RDONLY | CM_O_BINARY, &file) == 1 && file->kind == 2 &&
                    cm_fread(file, text, sizeof text, &got) == 1);
        cm_fclose(file);
        return string(text, static_cast<size_t>(got));
    }

    Net net{"Network Read Timeout = 20\nFile Cache Size = 9999\nMaximum Cached File = 99\nCache Stat Interval = 999"};
    TempFolder &folder = net.lib.folder();
    cm_ftp_session session = {};
    string told;  // nothing twice in a row
};

TEST_F(Ftp, DialoguesEndAsTheyShould) {
    const std::vector<string> before = folder.names();
    for (const Row &row : raw_rows("ftp/dialogues")) {
        SCOPED_TRACE(row.where);
        const bool logs_in = row[0].starts_with("connect"), wanted = row[1] == "1";
        FtpWire wire((logs_in ? "" : kLogIn) + unescaped(row[2]));
        ASSERT_TRUE(logs_in || play("connect"));
        EXPECT_EQ(play(row[0]), wanted);
        EXPECT_EQ(session.control != nullptr, !logs_in || wanted);
        EXPECT_EQ(cm_ftp_disconnect(&session), 1);
        EXPECT_EQ(told, unescaped(row[3]));
        EXPECT_EQ(wire.problem(), "");
        EXPECT_TRUE(!row[3].ends_with("data connection.") || (wire.last_wait_ms + 999) / 1000 == 180);
        const string file = row[0].substr(row[0].rfind(' ') + 1);
        const string have = wanted ? wire.given : file == "here" ? "old" : "";
        EXPECT_TRUE(!row[0].starts_with("get") || folder.read(file) == have) << folder.read(file);
        folder.write("here", "old");
        folder.remove("there");
        EXPECT_EQ(folder.names(), before) << "something was left behind";
        EXPECT_EQ(net.open(), 0);
    }
    for (const char *operation : {"cwd a", "mkdir a", "put here r", "get r here"}) EXPECT_FALSE(play(operation));
}

TEST_F(Ftp, AddressesThatAServerNames) {
    for (const Row &row : rows("ftp/addresses")) {
        cm::ftp::Address address = {};
        const bool named = cm::ftp::parse_address(row.text(0), &address);
        uint32_t number = 0;
        memcpy(&number, address.host, sizeof number);
        EXPECT_EQ(named ? dotted(number) + ":" + std::to_string(address.port) : "-", row[1]) << row.where;
        EXPECT_EQ(named && cm::ftp::may_name(address_of("8.8.8.8"), address), row[2] == "yes") << row.where;
        EXPECT_TRUE(cm::ftp::may_name(address_of("192.168.0.1"), address)) << row.where;
    }
}

// What a rename would break is written in place, a replaced file keeps who may read it, the cache hears of it.
TEST_F(Ftp, LocalFilesKeepWhatTheyAre) {
    const string here = folder.path("here"), first = folder.write("first", "old"), second = folder.path("second");
    ASSERT_EQ(os.path_link(first.c_str(), second.c_str()), 0);
    ASSERT_EQ(os.path_set_mode(here.c_str(), 0600), 0);
    cm::platform::FileStatus before, after;
    ASSERT_EQ(os.path_status(here.c_str(), false, &before), 0);
    EXPECT_EQ(cached(here), "old");
    for (const char *operation : {"get r first", "get r here"}) {
        FtpWire wire(string(kLogIn) + kGet);
        EXPECT_TRUE(play("connect") && play(operation) && cm_ftp_disconnect(&session));
    }
    ASSERT_EQ(os.path_status(here.c_str(), false, &after), 0);
    EXPECT_EQ(before.mode, after.mode);
    EXPECT_EQ(folder.read("second") + folder.read("here") + cached(here), "newnewnew");
}

TEST_F(Ftp, EveryFailureLeavesTheOldFileOrTheWholeNewOne) {
    FtpWire wire(string(kLogIn) + kGet);
    bool got = false;
    const auto run = [&] {
        wire.restart();
        got = play("connect") && play("get r here");
        cm_ftp_disconnect(&session);
    };
    run();  // the handles that stay
    each_failure(Faults::kAllocations | Faults::kFiles | Faults::kSockets | Faults::kClock, run,
                 [&](bool injected, size_t leaked) {
                     EXPECT_TRUE(got || injected);
                     EXPECT_EQ(folder.read("here"), got ? "new" : "old");
                     EXPECT_EQ(leaked, 0u);
                     EXPECT_EQ(net.open(), 0);
                     folder.write("here", "old");
                 });
}

}  // namespace
