// FTP sessions: log-in, directories, the commands.
#include "net/cmftp.h"

#include <string.h>

#include "core/cmerror.h"
#include "net/cmnet.h"

namespace cm::ftp {

int32_t server_port = kPort;

namespace {

constexpr size_t kCommandSize = 1024;  // of one line, with its end

constexpr int16_t kGreeting[] = {220}, kUserCodes[] = {230, 331}, kPassCodes[] = {230, 202}, kTypeCodes[] = {200, 504};
// Kept: servers say 257 to MKD, as RFC 959 has it, and it counts as refused.  Callers make a folder quietly and look
// at whether they can change to it.
constexpr int16_t kDirectoryCodes[] = {250};
constexpr int kPasswordWanted = 331;

constexpr char kDisconnected[] = "Unexpected disconnect from FTP server.";
constexpr Step kUser = {"USER", kUserCodes, kDisconnected, "FTP USER command failed."};
constexpr Step kPass = {"PASS", kPassCodes, kDisconnected, "FTP PASS command failed."};
constexpr Step kType = {"TYPE", kTypeCodes, kDisconnected, "FTP TYPE command failed."};
constexpr Step kCwd = {"CWD", kDirectoryCodes, "CWD: Unexpected disconnect from FTP server.",
                       "FTP CWD command failed."};
constexpr Step kMkd = {"MKD", kDirectoryCodes, "MKD: Unexpected disconnect from FTP server.",
                       "FTP MKD command failed."};

bool log_in(const cm_ftp_session *session, const char *user, const char *password) {
    int status = 0;
    if (!read_reply(session, kGreeting) || !run(session, kUser, user, false, &status)) return false;
    if (status == kPasswordWanted && !run(session, kPass, password)) return false;
    return run(session, kType, "I");
}

}  // namespace

void tell(const cm_ftp_session *session, const char *text) {
    if (session->message != nullptr) session->message(session->ctx, session->argument, text);
}

bool fits(const char *command, const char *argument) {
    const size_t length = strlen(argument);
    return strlen(command) + 1 + length + 2 <= kCommandSize && strcspn(argument, "\r\n") == length;
}

bool send(const cm_ftp_session *session, const char *command, const char *argument) {
    char line[kCommandSize + 1];
    const bool alone = argument == nullptr;
    const int32_t length =
        cm_snprintf(line, sizeof line, "%s%s%s\r\n", command, alone ? "" : " ", alone ? "" : argument);
    return cm_net_putdata(session->net, session->control, line, length, 1) != 0;
}

bool run(const cm_ftp_session *session, const Step &step, const char *argument, bool quiet, int *out_status) {
    const char *failure = step.refused;
    if (fits(step.command, argument)) {
        if (!send(session, step.command, argument))
            failure = step.disconnected;
        else if (read_reply(session, step.accepted, quiet, out_status))
            return true;
    }
    if (!quiet) tell(session, failure);
    return false;
}

}  // namespace cm::ftp

using namespace cm::ftp;

int16_t CM_CALL cm_ftp_connect(cm_context *ctx, cm_net_state *net, const char *host, const char *user,
                               const char *password, cm_value argument, cm_ftp_message message,
                               cm_ftp_session *out_session) {
    if (out_session == nullptr) return 0;
    *out_session = {message, argument, nullptr, net, ctx};
    if (net == nullptr || host == nullptr) return 0;
    const auto timeout_s = static_cast<int32_t>(cm::load_relaxed(net->read_timeout));
    if (cm_net_connect(net, host, server_port, timeout_s, 0, 0, &out_session->control, nullptr) == 0) {
        char text[cm::kMessageSize];
        cm_snprintf(text, sizeof text, "Unable to connect to FTP server: %s", host);
        tell(out_session, text);
        return 0;
    }
    if (log_in(out_session, user != nullptr ? user : "", password != nullptr ? password : "")) return 1;
    cm_ftp_disconnect(out_session);
    return 0;
}

int16_t CM_CALL cm_ftp_disconnect(cm_ftp_session *session) {
    if (session == nullptr) return 0;
    if (session->control == nullptr) return 1;
    send(session, "QUIT");
    cm_conn *control = session->control;
    session->control = nullptr;
    cm_net_close(session->net, control, 0);
    return 1;
}

int16_t CM_CALL cm_ftp_cwd(cm_ftp_session *session, const char *directory) {
    if (session == nullptr || session->control == nullptr || directory == nullptr) return 0;
    return run(session, kCwd, directory) ? 1 : 0;
}

int16_t CM_CALL cm_ftp_mkdir(cm_ftp_session *session, const char *directory, int16_t quiet) {
    if (session == nullptr || session->control == nullptr || directory == nullptr) return 0;
    return run(session, kMkd, directory, quiet != 0) ? 1 : 0;
}
