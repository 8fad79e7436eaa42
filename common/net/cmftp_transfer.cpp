// Transfers: the data connection, passive and else active, and the two ways through it.
#include <string.h>

#include <algorithm>

#include "core/cmstring.h"
#include "files/cache_hook.h"
#include "files/cmfile.h"
#include "files/durable.h"
#include "net/address.h"
#include "net/cmftp.h"
#include "net/cmnet.h"
#include "net/cmnet_accept.h"

namespace cm::ftp {
namespace {

using net::Call;
using net::Error;
using platform::FileStatus;
using platform::os;

constexpr int32_t kBacklog = 2;
constexpr int32_t kAcceptMs = 180 * 1000;
constexpr int32_t kPieceSize = 64 * 1024;

constexpr int16_t kPortCodes[] = {200, 250}, kTransferCodes[] = {125, 150, 226, 250};

// Some of the texts read oddly; they are what operators and scripts look for.
struct Direction {
    Step transfer;
    const char *no_listener;
    const char *port_refused;
    const char *no_data;
};

constexpr Direction kStore = {{"STOR", kTransferCodes, "STOR: Unexpected disconnect from FTP server.",
                               "STOR: Failure pushing file to FTP server."},
                              "PASV: Unable to start network listener for file push.",
                              "PORT: Unable to establish connection with FTP server.",
                              "STOR: Failure receiving FTP server data connection."};
constexpr Direction kRetrieve = {{"RETR", kTransferCodes, "RETR: Unexpected disconnect from FTP server.",
                                  "RETR: Failure retrieving file from FTP server."},
                                 "PASV: Unable to start network listener for file retrival.",
                                 "PORT: Failure retrieving file from FTP server.",
                                 "RETR: Failure receiving FTP server data connection."};
constexpr char kNotWritten[] = "RETR: Failure writing FTP data writing to the local file.";
constexpr char kNotComplete[] = "RETR: FTP server did not indicate the transfer was complete.";  // kept: of both

bool fails(const cm_ftp_session *session, const char *text) {
    tell(session, text);
    return false;
}

// ---- data connection ------------------------------------------------------------------------------------------------

class DataConnection {
public:
    explicit DataConnection(const cm_ftp_session *session) : session_(session) {}
    ~DataConnection() {
        close_listener();
        close();
    }
    DataConnection(const DataConnection &) = delete;
    DataConnection &operator=(const DataConnection &) = delete;

    // Up to and with the reply that begins the transfer.
    bool open(const Direction &direction, const char *name);
    cm_conn *get() const { return conn_; }
    void close() {
        cm_net_close(session_->net, conn_, 0);
        conn_ = nullptr;
    }

private:
    bool connect_to(const Address &address);
    bool listen(const Direction &direction);
    bool accept();
    bool accept_by(int64_t deadline);
    void close_listener() {
        cm_net_close(session_->net, listener_, 0);
        listener_ = nullptr;
    }

    const cm_ftp_session *const session_;
    cm_conn *listener_ = nullptr;
    cm_conn *conn_ = nullptr;
};

bool DataConnection::connect_to(const Address &address) {
    if (!may_name(session_->control->peer_addr, address)) return false;
    char host[net::kDottedSize];
    uint32_t number = 0;
    memcpy(&number, address.host, sizeof number);
    net::format_dotted(number, host);
    const auto timeout_s = static_cast<int32_t>(load_relaxed(session_->net->read_timeout));
    return cm_net_connecta(session_->net, host, address.port, timeout_s, 0, 0, &conn_, nullptr, 0) != 0;
}

bool DataConnection::listen(const Direction &direction) {
    if (cm_net_listenc(session_->net, session_->control, kBacklog, 0, &listener_) == 0)
        return fails(session_, direction.no_listener);
    unsigned char host[4];
    memcpy(host, &listener_->peer_addr, sizeof host);
    const uint32_t port = listener_->peer_port;
    char argument[32];
    cm_snprintf(argument, sizeof argument, "%d,%d,%d,%d,%d,%d", host[0], host[1], host[2], host[3],
                static_cast<int>(port >> 8), static_cast<int>(port & 255));
    const Step step = {"PORT", kPortCodes, "PORT: Unexpected disconnect from FTP server.", direction.port_refused};
    return run(session_, step, argument);
}

// Takes the server's connection.  Others that found the port are turned away, and waiting goes on.
bool DataConnection::accept_by(int64_t deadline) {
    const Call listening(session_->net, listener_);
    // What made the listener ready may be gone again when it is asked for.
    if (os.socket_set_blocking(listening.socket(), false) != 0) return false;
    for (;;) {
        const int64_t left = deadline - os.monotonic_ms();
        if (left <= 0) return false;
        if (net::wait_for(session_->net, listening, false, static_cast<int32_t>(left)) != net::Wait::kReady)
            return false;
        Error error = 0;
        cm_conn *conn = net::accept_one(session_->net, listener_, 0, true, &error);
        if (conn == nullptr) {
            if (error != CM_EWOULDBLOCK && error != CM_ECONNABORTED && error != CM_ECONNRESET) return false;
        } else if (conn->peer_addr == session_->control->peer_addr) {
            conn_ = conn;
            return true;
        } else {
            cm_net_close(session_->net, conn, 0);
        }
    }
}

bool DataConnection::accept() {
    const bool accepted = accept_by(os.monotonic_ms() + kAcceptMs);
    close_listener();
    return accepted;
}

bool DataConnection::open(const Direction &direction, const char *name) {
    // Refused before anything is sent, like every name that is no single line.
    if (!fits(direction.transfer.command, name)) return fails(session_, direction.transfer.refused);
    Address address;
    if (!send(session_, "PASV"))
        tell(session_, "PASV: Unexpected disconnect from FTP server.");
    else if (read_address(session_, &address) && !connect_to(address))
        return fails(session_, "PASV: Unable to connect to FTP server.");
    if (conn_ == nullptr && !listen(direction)) return false;
    if (!run(session_, direction.transfer, name)) return false;
    return listener_ == nullptr || accept() || fails(session_, direction.no_data);
}

// ---- the local file of a retrieval ----------------------------------------------------------------------------------

// Written beside the file and renamed over it when the server has said that the transfer is complete, so that a broken
// transfer leaves what was there.  Not synced: a fetched file can be fetched again.  What a rename would break (a link,
// a device, a second name, a folder that takes no new files) is written in place.
class LocalFile {
public:
    LocalFile(cm_context *ctx, const char *path) : ctx_(ctx), path_(path) {}

    bool open();
    bool write(const char *data, int32_t length) {
        int32_t written = 0;
        return cm_fwrite(file_.get(), data, length, &written) != 0 && written == length;
    }
    bool close() { return file_.close(); }
    bool put_in_place();

private:
    static constexpr int32_t kAfresh = CM_O_WRONLY | CM_O_CREAT | CM_O_BINARY;

    bool open_beside(const FileStatus *replaced);

    cm_context *const ctx_;
    const char *const path_;
    files::TemporaryFile temporary_;  // outlives the handle: an open file cannot be removed everywhere
    files::FileCloser file_;
    bool beside_ = false;
};

bool LocalFile::open_beside(const FileStatus *replaced) {
    if (!temporary_.draw_name(path_)) return false;
    int32_t flags = kAfresh | CM_O_EXCL | platform::kOpenNoFollow;
    if (replaced != nullptr) flags |= platform::kOpenOwnerOnly;
    if (cm_fopen(ctx_, temporary_.path(), flags, file_.out()) == 0) return false;
    temporary_.created();
    return replaced == nullptr || os.path_set_mode(temporary_.path(), replaced->mode & 0777) == 0;
}

bool LocalFile::open() {
    FileStatus old;
    const bool exists = os.path_status(path_, false, &old) == 0;
    const bool replaceable = !exists || (old.type == platform::FileType::kRegular && old.links == 1 &&
                                         os.path_access(path_, CM_ACCESS_WRITE) == 0);
    beside_ = replaceable && !files::is_device_name(path_) && open_beside(exists ? &old : nullptr);
    if (beside_) return true;
    file_.close();
    temporary_.remove();
    return cm_fopen(ctx_, path_, kAfresh | CM_O_TRUNC, file_.out()) != 0;
}

bool LocalFile::put_in_place() {
    if (!beside_) return true;
    if (os.path_rename(temporary_.path(), path_) != 0) return false;
    temporary_.gone();
    if (files::enabled_cache(ctx_) == nullptr) return true;
    // The cache has heard of the temporary name only; an open for reading makes it forget this one.
    files::FileCloser seen;
    cm_fopen(ctx_, path_, CM_O_RDONLY | CM_O_BINARY, seen.out());
    return true;
}

// ---- transfers ------------------------------------------------------------------------------------------------------

// The server answers an ABOR when it likes; nobody waits for that.
bool aborts(const cm_ftp_session *session, DataConnection &data, const char *text) {
    send(session, "ABOR");
    data.close();
    return fails(session, text);
}

bool store(const cm_ftp_session *session, const char *local_file, const char *remote_name) {
    DataConnection data(session);
    if (!data.open(kStore, remote_name)) return false;
    if (cm_net_putfile(session->net, data.get(), local_file, 0, 0, 1) == 0)
        return aborts(session, data, "STOR: Failure writing local file to FTP server.");
    data.close();  // the end of the file, without which some servers say nothing
    return read_reply(session, kTransferCodes) || fails(session, kNotComplete);
}

// Gives the text of the failure, null at the end of the data.
const char *receive_into(const cm_ftp_session *session, cm_conn *conn, LocalFile &file) {
    char piece[kPieceSize];
    int32_t count = kPieceSize;
    while (count == kPieceSize) {  // less only where the server has closed
        if (cm_net_read(session->net, conn, 1, piece, kPieceSize, &count) == 0)
            return "RETR: Failure reading FTP data.";
        if (count > 0 && !file.write(piece, count)) return kNotWritten;
    }
    return file.close() ? nullptr : kNotWritten;
}

bool retrieve(const cm_ftp_session *session, const char *remote_name, const char *local_file) {
    DataConnection data(session);
    if (!data.open(kRetrieve, remote_name)) return false;
    LocalFile file(session->ctx, local_file);
    if (!file.open()) return aborts(session, data, "RETR: Failure opening local file.");
    if (const char *failure = receive_into(session, data.get(), file)) return aborts(session, data, failure);
    data.close();
    if (!read_reply(session, kTransferCodes)) return fails(session, kNotComplete);
    return file.put_in_place() || fails(session, kNotWritten);
}

}  // namespace
}  // namespace cm::ftp

using namespace cm::ftp;

int16_t CM_CALL cm_ftp_put(cm_ftp_session *session, const char *local_file, const char *remote_name) {
    if (session == nullptr || session->control == nullptr || local_file == nullptr || remote_name == nullptr) return 0;
    return cm_isfile(session->ctx, local_file, 0) != 0 && store(session, local_file, remote_name) ? 1 : 0;
}

int16_t CM_CALL cm_ftp_get(cm_ftp_session *session, const char *remote_name, const char *local_file) {
    if (session == nullptr || session->control == nullptr || remote_name == nullptr || local_file == nullptr) return 0;
    return retrieve(session, remote_name, local_file) ? 1 : 0;
}
