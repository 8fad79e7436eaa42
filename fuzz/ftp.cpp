// A server that says anything, to a client that tries everything: no crash, no wait without end, nothing but printable
// lines for the caller, and a local file that is the old one or all of the data.
// Input: a byte of switches, the data's length, the data, what the control connection says.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

#include "ftp/wire.h"
#include "input.h"
#include "net/cmnet.h"
#include "support/support.h"

using cm::fuzz::check;

namespace {

void CM_CALL listen_to(cm_context *, cm_value, const char *text) {
    for (; *text != '\0'; text++) check(static_cast<unsigned char>(*text) >= ' ' && *text != 0x7F);
}

// Without a context: its connections come from a network whose sockets are the wire's.
cm_net_state *started() {
    static cm_net_state *state = [] {
        cm_net_state *made = nullptr;
        const cm::test::StandardErrorCapture quiet;
        check(cm_net_init(nullptr, 0, &made) == 1);
        return made;
    }();
    return state;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    if (size < 3 || size > 1 << 16) return 0;
    static const cm::test::TempFolder folder;
    static const std::string local = folder.write("local", "old");
    cm_net_state *net = started();
    cm::fuzz::Input input(bytes, size);
    const uint32_t switches = input.byte();

    const cm::test::StandardErrorCapture quiet;
    cm::test::FtpWire wire((switches & 1) != 0 ? "connect" : "foreign");
    wire.any_address = true;
    wire.broken = (switches & 2) != 0;
    wire.ended = (switches & 4) != 0;
    const std::string data = wire.data = input.text(input.byte());
    wire.control = ((switches & 8) != 0 ? "220 a\n230 b\n200 c\n" : "") + input.rest();

    cm_ftp_session session;
    std::string want = "old";
    if (cm_ftp_connect(nullptr, net, "8.8.8.8", "user", "password", 0, listen_to, &session) == 1) {
        cm_ftp_cwd(&session, "pub");
        cm_ftp_mkdir(&session, "new", static_cast<int16_t>(switches & 1));
        if (cm_ftp_get(&session, "remote", local.c_str()) == 1) want = data;
        cm_ftp_put(&session, local.c_str(), "remote");
    } else {
        check(session.control == nullptr);
    }
    check(cm_ftp_disconnect(&session) == 1 && session.control == nullptr);
    check(net->open_count == 0);
    check(folder.read("local") == want);
    if (want != "old") folder.write("local", "old");
    return 0;
}
